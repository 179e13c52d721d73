#!/usr/bin/env python3
"""Writes docs/functions.md, the page of the module's functions, from its Python face.

For GUI authors, who read the page, and for whoever changes the face: `make docs` writes the page
anew, and `--check` (exit status 1 if the page is stale) is what a test runs. The face is read and
not imported.

What the face holds becomes, in its order: a comment line of dashes and a title, with the comment
after it, a section; a function or class with its docstring, or a name with the text after it, an
entry of the section. In a docstring "Args:", "Raises:" and "Example:" begin parts of their own.
"""

from __future__ import annotations

import argparse
import ast
import inspect
import re
import sys
from collections.abc import Iterator
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
FACE = ROOT / "veldarin" / "modules" / "modules_util.pyi"
PAGE = ROOT / "docs" / "functions.md"

_TITLE = "# Functions of veldarin.modules.modules_util"
_NOTICE = (
    "<!-- Written by tools/generate_function_docs.py"
    " from modules_util.pyi: edit that, `make docs`. -->"
)
_HEADING = re.compile(r"# -{10,} (?P<title>\S.*)")
_PARTS = ("Args:", "Raises:", "Example:")


@dataclass(frozen=True)
class Entry:
    """A function, a type or a name of the module."""

    name: str
    code: str  # as the face declares it
    text: str  # its docstring, cleaned
    is_function: bool

    @property
    def summary(self) -> str:
        """The first line of its text."""
        return self.text.partition("\n")[0]


@dataclass
class Section:
    """What stands under one heading."""

    title: str
    text: str
    line: int
    entries: list[Entry] = field(default_factory=list)


class FaceError(ValueError):
    """A face that cannot be made a page of; its text is one line."""


def read(source: str) -> tuple[str, list[Section]]:
    """The text that the face opens with, and its sections. Raises `FaceError`, `SyntaxError`."""
    tree = ast.parse(source)
    sections = list(_sections(source.splitlines()))
    for entry, line in _entries(tree.body):
        above = [section for section in sections if section.line < line]
        if not above:
            raise FaceError(f"line {line}: {entry.name} stands under no heading")
        if not entry.text:
            raise FaceError(f"line {line}: {entry.name} has no text")
        above[-1].entries.append(entry)
    return inspect.cleandoc(ast.get_docstring(tree) or ""), sections


def page(source: str) -> str:
    """The page of a face. Raises as `read` does."""
    introduction, sections = read(source)
    blocks = [_TITLE, _NOTICE, introduction, _contents(sections)]
    for section in sections:
        blocks += [f"## {section.title}", section.text]
        for entry in section.entries:
            blocks += [f"### {entry.name}", _fenced(entry.code), _marked_up(entry.text)]
    return "\n\n".join(block for block in blocks if block) + "\n"


def _sections(lines: list[str]) -> Iterator[Section]:
    for number, line in enumerate(lines, 1):
        heading = _HEADING.fullmatch(line)
        if heading is None:
            continue
        words = []
        for following in lines[number:]:
            if not following.startswith("#"):
                break
            words.append(following[1:].strip())
        yield Section(heading["title"], "\n".join(words), number)


def _entries(body: list[ast.stmt]) -> Iterator[tuple[Entry, int]]:
    """The declarations with their lines; imports are told of in words."""
    for node, following in zip(body, [*body[1:], None]):
        if isinstance(node, ast.FunctionDef):
            text = ast.get_docstring(node) or ""
            yield Entry(node.name, _declaration(node), text, True), node.lineno
        elif isinstance(node, ast.ClassDef):
            fields = [ast.unparse(line) for line in node.body if not _is_text(line)]
            code = "\n    ".join(
                [f"class {node.name}({', '.join(map(ast.unparse, node.bases))}):", *fields]
            )
            yield Entry(node.name, code, ast.get_docstring(node) or "", False), node.lineno
        elif isinstance(node, (ast.Assign, ast.AnnAssign)):
            target = node.targets[0] if isinstance(node, ast.Assign) else node.target
            text = inspect.cleandoc(_text(following))
            yield Entry(ast.unparse(target), ast.unparse(node), text, False), node.lineno


def _declaration(node: ast.FunctionDef) -> str:
    # Spaced as the formatter has it, which ast.unparse does not.
    arguments = re.sub(r"(\w|\])=", r"\1 = ", ast.unparse(node.args))
    result = f" -> {ast.unparse(node.returns)}" if node.returns else ""
    return f"{node.name}({arguments}){result}"


def _text(node: ast.stmt | None) -> str:
    if isinstance(node, ast.Expr) and isinstance(node.value, ast.Constant):
        return str(node.value.value)
    return ""


def _is_text(node: ast.stmt) -> bool:
    return bool(_text(node))


def _contents(sections: list[Section]) -> str:
    functions = [entry for section in sections for entry in section.entries if entry.is_function]
    rows = [
        f"| {number} | [`{entry.name}`](#{entry.name}) | {entry.summary} |"
        for number, entry in enumerate(functions, 1)
    ]
    return "\n".join(["| | Function | |", "|---|---|---|", *rows])


def _marked_up(text: str) -> str:
    """A docstring as Markdown: it is already, but for its parts."""
    blocks: list[list[str]] = [[""]]
    for line in text.splitlines():
        if line in _PARTS:
            blocks.append([line])
        elif blocks[-1][0] and line and not line.startswith(" "):
            blocks.append(["", line])  # the text goes on after a part
        else:
            blocks[-1].append(line)
    return "\n\n".join(filter(None, map(_block, blocks)))


def _block(lines: list[str]) -> str:
    part, content = lines[0], inspect.cleandoc("\n".join(["", *lines[1:]])).strip()
    if part in ("Args:", "Raises:"):
        return _listed(part, content)
    if part == "Example:":
        return _fenced(content)
    return content


def _listed(part: str, content: str) -> str:
    rows = re.sub(r"\n +", " ", content).splitlines()
    if not all(re.match(r"\w+: ", row) for row in rows):
        return f"{part} {content[0].lower()}{content[1:]}"  # words in place of a list
    return f"{part}\n\n" + "\n".join(re.sub(r"^(\w+): ", r"- `\1`: ", row) for row in rows)


def _fenced(code: str) -> str:
    return f"```python\n{code}\n```"


def main(arguments: list[str]) -> int:
    """Writes or checks the page; returns the exit status."""
    parser = argparse.ArgumentParser(
        description="Writes docs/functions.md from veldarin/modules/modules_util.pyi."
    )
    parser.add_argument(
        "--check", action="store_true", help="write nothing; exit status 1 if the page is stale"
    )
    check = parser.parse_args(arguments).check
    try:
        made = page(FACE.read_text(encoding="utf-8"))
    except (FaceError, SyntaxError, OSError) as error:
        print(f"{FACE.relative_to(ROOT)}: {error}", file=sys.stderr)
        return 1
    if not check:
        PAGE.parent.mkdir(exist_ok=True)
        PAGE.write_text(made, encoding="utf-8")
        return 0
    if PAGE.is_file() and PAGE.read_text(encoding="utf-8") == made:
        return 0
    print(f"{PAGE.relative_to(ROOT)} is stale: make docs", file=sys.stderr)
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
