"""Generates the mutants of a C++ source: copies of it with one small defect each.

The generator reads tokens, not a syntax tree: half of the interesting places are rows of
function_table.def and macro arguments, which no tree has. The compiler rejects the few mutants that
are not valid.
"""

from __future__ import annotations

import re
from collections import Counter
from collections.abc import Iterator
from typing import NamedTuple

TOKEN = re.compile(
    r"""
    (?P<skipped>//[^\n]*|/\*.*?\*/|^[ ]*\#(?:include|pragma|undef|if|endif)[^\n]*
        |^\#define\ \w+(?:\([^)]*\))?|\bstatic_assert\(.*?\);|\bextern\ "C")
    |(?P<string>"(?:\\.|[^"\\\n])*")
    |(?P<character>'(?:\\.|[^'\\\n])+')
    |(?P<number>\b(?:0[xX][\da-fA-F]+|\d+)(?=[uUlL]*\b))
    |(?P<name>[A-Za-z_]\w*(?:::[A-Za-z_]\w*)*)
    |(?P<operator><<=|>>=|->|\+\+|--|<<|>>|[-+*/%&|^<>=!]=|&&|\|\||\S)
    """,
    re.DOTALL | re.MULTILINE | re.VERBOSE,
)

# Binary operators; the sources have blanks around them and around nothing else.
BINARY = {
    "<": ("<=", ">="),
    "<=": ("<", ">"),
    ">": (">=", "<="),
    ">=": (">", "<"),
    "==": ("!=",),
    "!=": ("==",),
    "&&": ("||",),
    "||": ("&&",),
    "+": ("-",),
    "-": ("+",),
    "*": ("+",),
    "/": ("*",),
    "<<": (">>",),
    ">>": ("<<",),
    "&": ("|",),
    "|": ("&",),
    "^": ("&",),
    "+=": ("-=",),
    "-=": ("+=",),
}
UNARY = {"++": "--", "--": "++"}
NAMES = {
    "Ref::steal": "Ref::borrow",
    "Ref::borrow": "Ref::steal",
    "true": "false",
    "false": "true",
    "break": "continue",
    "continue": "break",
}
WORD = re.compile(r"[a-z]\w+")
# The line of a traceback entry where it is used, and the files that only define such lines.
LINE = re.compile(r"at::\w+|capture_line::\w+|source_line::\w+::\w+")
LINE_FILES = (".def", "traceback_lines.h")
# A condition of a single operator that another mutant negates.
NEGATED_ALREADY = re.compile(r"\((?:!|true|[^&|]* [<>=!]=? )(?:(?!&&|\|\|).)*$", re.DOTALL)
CONDITIONAL = {"if", "else", "for", "while", "switch"}
KEYWORDS = {
    *CONDITIONAL,
    "case",
    "default",
    "do",
    "namespace",
    "using",
    "static_assert",
    "template",
}
SCOPES = {"class", "enum", "extern", "namespace", "struct", "union"}
DECLARATION = re.compile(
    r"(?:(?:const|constexpr|static|inline|explicit|struct)\s+)*"
    r"[A-Za-z_][\w:]*(?:<[^;=]*>)?(?:\s+[*&]*|\s*[*&]+\s*(?:const\s+)?)(?P<name>[A-Za-z_]\w*)\s*[=;({\[,]"
)
ROW = re.compile(r"^ *(?P<head>\w*) *(?P<open>[{(])(?P<fields>.*)[})],?$")


class Token(NamedTuple):
    """A token of a source."""

    kind: str
    text: str
    start: int
    end: int


class Mutant(NamedTuple):
    """The source `file` with `new` in place of the characters from `start` to `end`.

    `name` identifies the mutant as long as its lines stay the same.
    """

    file: str
    line: int
    start: int
    end: int
    new: str
    name: str

    def apply(self, source: str) -> str:
        """Return the text of the mutant."""
        return source[: self.start] + self.new + source[self.end :]


Edit = tuple[int, int, str]  # start, end, replacement


def read_tokens(source: str) -> list[Token]:
    """Split a source into tokens, without comments and most directives."""
    found = TOKEN.finditer(source)
    return [
        Token(each.lastgroup, each[0], each.start(), each.end())
        for each in found
        if each.lastgroup and each.lastgroup != "skipped"
    ]


def _token_edits(file: str, source: str, tokens: list[Token]) -> Iterator[Edit]:
    """Replace operators, constants, texts, lines, and `steal` with `borrow`."""
    for index, (kind, text, start, end) in enumerate(tokens):
        following = tokens[index + 1].text if index + 1 < len(tokens) else ""
        spaced = source[start - 1].isspace() and source[end : end + 1].isspace()
        new: list[str] = []
        if kind == "operator" and spaced:
            new = [*BINARY.get(text, ())]
        elif kind == "operator" and text in UNARY:
            new = [UNARY[text]]
        elif kind == "operator" and text == "!":
            new = [""]
        elif kind == "number":
            value = int(text, 0)
            form = hex if text.startswith("0x") else str
            before = tokens[index - 1].text
            # `x < n + 1` is `x <= n`; only the sign of a negative result matters.
            if before not in {"<", ">="} and source[start - 1] != "-":
                new.append(form(value + 1))
            if value and before not in {">", "<="} and not file.endswith(LINE_FILES):
                new.append(form(value - 1))
        elif kind == "character":
            shifted = ord(text[1:-1].encode().decode("unicode_escape")) + 1
            new = [f"'\\x{shifted:02x}'"]
        elif kind == "string":
            shorter = re.sub(r"(?:\\.|[^\\])$", "", text[1:-1])
            new = [f'"{shorter}"' if shorter else '"~"'] if text != '"\\0"' else []
        elif kind == "name" and text in NAMES:
            new = [NAMES[text]]
        elif kind == "name" and LINE.fullmatch(text) and following != ";":
            new = [f"{text} + 1"]
        yield from ((start, end, each) for each in new)


def _closing(tokens: list[Token], index: int) -> int:
    """The index of the token that closes the bracket at `index`."""
    depth = 0
    while True:
        depth += (tokens[index].text in "([{") - (tokens[index].text in ")]}")
        if depth == 0:
            return index
        index += 1


def _condition_edits(source: str, tokens: list[Token]) -> Iterator[Edit]:
    """Negate conditions, and exchange the results of conditional expressions."""
    for index, token in enumerate(tokens[:-1]):
        if token.text in {"if", "while"} and tokens[index + 1].text == "(":
            start, end = tokens[index + 1].start, tokens[_closing(tokens, index + 1)].end
            condition = source[start:end]
            # Other mutants negate a single operator, comparison or constant.
            if not NEGATED_ALREADY.match(condition):
                yield start, end, f"(!{condition})"
        elif token.text == "?":
            middle = stop = depth = 0
            for place in range(index + 1, len(tokens)):
                text = tokens[place].text
                if depth == 0 and middle and text in {",", ";", ")", "}"}:
                    stop = place
                    break
                if depth == 0 and text == ":" and not middle:
                    middle = place
                depth += (text in "([{?") - (text in ")]}" or (text == ":" and place != middle))
            first = source[token.end : tokens[middle].start].strip()
            second = source[tokens[middle].end : tokens[stop].start].strip()
            yield token.end, tokens[stop].start, f" ({second}) : ({first})"


def _statement_edits(source: str, tokens: list[Token]) -> Iterator[Edit]:
    """Remove statements: calls, assignments, jumps, and returns that depend on a condition."""
    blocks: list[str | None] = [None]  # what opens each enclosing block; None outside of functions
    first = 0  # token of the statement
    guard = ""  # the condition in front of the statement
    index = -1
    while index + 1 < len(tokens):
        index += 1
        text = tokens[index].text
        start = tokens[first].text
        if text == "{":
            before = tokens[index - 1].text
            is_scope = start in SCOPES or before in {")", "else", "do", "const", "noexcept"}
            if not is_scope:
                index = _closing(tokens, index)
                continue
            blocks.append(None if start in SCOPES else guard or start)
        elif text == "}" and len(blocks) > 1:
            blocks.pop()
        elif text in "([":
            index = _closing(tokens, index)
            if start not in {"if", "for", "while", "switch"}:
                continue
            guard, first = start, index + 1
            continue
        elif text in {"else", "do"} and index == first:
            guard, first = text, index + 1
            continue
        elif text == ":" and start in {"case", "default", "public", "private"}:
            guard, first = "", index + 1
            continue
        elif text == ";":
            if blocks[-1] is not None:
                in_block = blocks[-1] in CONDITIONAL
                yield from _removal(source, tokens[first : index + 1], in_block, guard)
        else:
            continue
        guard, first = "", index + 1


def _removal(source: str, tokens: list[Token], in_block: bool, guard: str) -> Iterator[Edit]:
    start, end = tokens[0].start, tokens[-1].end
    statement = source[start:end]
    if tokens[0].text in KEYWORDS or len(tokens) < 2:
        return
    if tokens[0].text == "return":
        if guard != "else" and (in_block or guard):
            yield start, end, ";"
    elif declared := DECLARATION.match(statement):
        # An object may have a destructor, or a call that initializes it effects.
        rest = source[end : source.find("\n}", end)]
        if "(" in statement and not re.search(rf"\b{declared['name']}\b", rest):
            yield start, end, ";"
    else:
        yield start, end, ";"


def _split_fields(text: str, start: int) -> list[Edit]:
    """The fields between commas that no bracket encloses, each with its place."""
    fields, depth, begin = [], 0, 0
    for place, character in enumerate(f"{text},"):
        depth += (character in "([{") - (character in ")]}")
        if character == "," and depth == 0:
            field = text[begin:place]
            left = begin + len(field) - len(field.lstrip())
            fields.append((start + left, start + begin + len(field.rstrip()), field.strip()))
            begin = place + 1
    return [each for each in fields if each[2]]


def _row_edits(source: str) -> Iterator[Edit]:
    """Remove rows of tables, exchange neighbors, and give a field the next row's value."""
    rows: list[tuple[int, int, str, list[Edit]]] = []  # of the current table
    offset = 0
    for line in [*source.splitlines(keepends=True), "\n"]:
        found = ROW.match(line.rstrip("\n"))
        is_row = found and (found["open"] == "{") != bool(found["head"]) and "..." not in line
        if found and is_row and (found["head"].isupper() or line.rstrip().endswith("},")):
            fields = _split_fields(found["fields"], offset + found.start("fields"))
            if found["head"]:
                place = offset + found.start("head")
                fields.insert(0, (place, place + len(found["head"]), found["head"]))
            rows.append((offset, offset + len(line), line, fields))
        else:
            yield from _table_edits(rows) if len(rows) > 1 else ()
            rows = []
        offset += len(line)


def _table_edits(rows: list[tuple[int, int, str, list[Edit]]]) -> Iterator[Edit]:
    for index, (start, end, line, fields) in enumerate(rows):
        yield start, end, ""
        if index + 1 < len(rows):
            yield start, rows[index + 1][1], rows[index + 1][2] + line
        # The nearest row of the same form, the next one first.
        others = [row[3] for row in (*rows[index + 1 :], *reversed(rows[:index]))]
        for number, (left, right, value) in enumerate(fields):
            differing = (
                other[number][2]
                for other in others
                if len(other) == len(fields) and other[number][2] != value
            )
            replacement = next(differing, None)
            if replacement is not None and not value.isdigit():
                yield left, right, replacement


def generate(file: str, source: str) -> list[Mutant]:
    """Generate all mutants of a source, in the order of their places."""
    tokens = read_tokens(source)
    edits = {
        *_token_edits(file, source, tokens),
        *_condition_edits(source, tokens),
        *_statement_edits(source, tokens),
        *_row_edits(source),
    }
    mutants, names = [], Counter[str]()
    for start, end, new in sorted(edits):
        left = source.rfind("\n", 0, start) + 1
        right = source.find("\n", max(end - 1, start))
        old_lines = " ".join(source[left:right].split())
        new_lines = " ".join((source[left:start] + new + source[end:right]).split())
        name = f"{file}: {old_lines} ==> {new_lines}"
        names[name] += 1
        if names[name] > 1:
            name += f" #{names[name]}"
        line = source.count("\n", 0, start) + 1
        mutants.append(Mutant(file, line, start, end, new, name))
    return mutants
