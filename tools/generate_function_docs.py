#!/usr/bin/env python3
"""Writes docs/functions.md, the reference of the module's functions, from its type stub.

`make docs` writes the page; a test runs `--check` (exit status 1 if the page is stale). The stub is
read, not imported, and determines the order: a comment line of dashes and a title, with the comment
after it, becomes a section; a function or class with its docstring, or a name with the text after
it, an entry of the section. "Raises:" and "Example:" in a docstring begin parts.
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
STUB = ROOT / "veldarin" / "modules" / "modules_util.pyi"
PAGE = ROOT / "docs" / "functions.md"

_TITLE = "# Functions of veldarin.modules.modules_util"
_NOTICE = (
    "<!-- Written by tools/generate_function_docs.py"
    " from modules_util.pyi: edit that, `make docs`. -->"
)
_HEADING = re.compile(r"# -{10,} (?P<title>\S.*)")
_PARTS = ("Raises:", "Example:")


@dataclass(frozen=True)
class Entry:
    """A function, type or constant of the module."""

    name: str
    code: str  # as the stub declares it
    text: str  # the cleaned docstring
    is_function: bool

    @property
    def summary(self) -> str:
        """The first line of the docstring."""
        return self.text.partition("\n")[0]


@dataclass
class Section:
    """A heading with its entries."""

    title: str
    text: str
    line: int
    entries: list[Entry] = field(default_factory=list)


class StubError(ValueError):
    """A stub without the structure that the page needs; the message is one line."""


def read(source: str) -> tuple[str, list[Section]]:
    """Returns the stub's docstring and sections. Raises `StubError`, `SyntaxError`."""
    tree = ast.parse(source)
    sections = list(_sections(source.splitlines()))
    for entry, line in _entries(tree.body):
        above = [section for section in sections if section.line < line]
        if not above:
            raise StubError(f"line {line}: {entry.name} is not below a heading")
        if not entry.text:
            raise StubError(f"line {line}: {entry.name} has no docstring")
        above[-1].entries.append(entry)
    return inspect.cleandoc(ast.get_docstring(tree) or ""), sections


def page(source: str) -> str:
    """Returns the page for a stub. Raises as `read` does."""
    introduction, sections = read(source)
    blocks = [_TITLE, _NOTICE, introduction, _contents(sections)]
    for section in sections:
        blocks += [f"## {section.title}", section.text]
        for entry in section.entries:
            blocks += [f"### {entry.name}", _fenced(entry.code), _format_docstring(entry.text)]
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
    """Yields the declarations with their lines, without imports."""
    for node, following in zip(body, [*body[1:], None]):
        if isinstance(node, ast.FunctionDef):
            text = ast.get_docstring(node) or ""
            yield Entry(node.name, _declaration(node), text, True), node.lineno
        elif isinstance(node, ast.ClassDef):
            fields = [ast.unparse(line) for line in node.body if not _is_docstring(line)]
            code = "\n    ".join(
                [f"class {node.name}({', '.join(map(ast.unparse, node.bases))}):", *fields]
            )
            yield Entry(node.name, code, ast.get_docstring(node) or "", False), node.lineno
        elif isinstance(node, (ast.Assign, ast.AnnAssign)):
            target = node.targets[0] if isinstance(node, ast.Assign) else node.target
            text = inspect.cleandoc(_text(following))
            yield Entry(ast.unparse(target), ast.unparse(node), text, False), node.lineno


def _declaration(node: ast.FunctionDef) -> str:
    # ast.unparse omits the spaces around =.
    arguments = re.sub(r"(\w|\])=", r"\1 = ", ast.unparse(node.args))
    result = f" -> {ast.unparse(node.returns)}" if node.returns else ""
    return f"{node.name}({arguments}){result}"


def _text(node: ast.stmt | None) -> str:
    if isinstance(node, ast.Expr) and isinstance(node.value, ast.Constant):
        return str(node.value.value)
    return ""


def _is_docstring(node: ast.stmt) -> bool:
    return bool(_text(node))


def _contents(sections: list[Section]) -> str:
    functions = [entry for section in sections for entry in section.entries if entry.is_function]
    rows = [
        f"| {number} | [`{entry.name}`](#{entry.name}) | {entry.summary} |"
        for number, entry in enumerate(functions, 1)
    ]
    return "\n".join(["| | Function | |", "|---|---|---|", *rows])


def _format_docstring(text: str) -> str:
    """Formats a docstring, which is Markdown but for its parts."""
    blocks: list[list[str]] = [[""]]
    for line in text.splitlines():
        if line in _PARTS:
            blocks.append([line])
        elif blocks[-1][0] and line and not line.startswith(" "):
            blocks.append(["", line])  # text after a part
        else:
            blocks[-1].append(line)
    return "\n\n".join(filter(None, map(_block, blocks)))


def _block(lines: list[str]) -> str:
    part, content = lines[0], inspect.cleandoc("\n".join(["", *lines[1:]])).strip()
    if part == "Raises:":
        return _format_raises(content)
    if part == "Example:":
        return _fenced(content)
    return content


def _format_raises(content: str) -> str:
    rows = re.sub(r"\n +", " ", content).splitlines()
    if not all(re.match(r"\w+: ", row) for row in rows):
        return f"Raises: {content[0].lower()}{content[1:]}"  # prose instead of a list
    return "Raises:\n\n" + "\n".join(re.sub(r"^(\w+): ", r"- `\1`: ", row) for row in rows)


def _fenced(code: str) -> str:
    return f"```python\n{code}\n```"


def main(arguments: list[str]) -> int:
    """Writes or checks the page and returns the exit status."""
    parser = argparse.ArgumentParser(
        description="Writes docs/functions.md from veldarin/modules/modules_util.pyi."
    )
    parser.add_argument(
        "--check", action="store_true", help="write nothing; exit status 1 if the page is stale"
    )
    check = parser.parse_args(arguments).check
    try:
        content = page(STUB.read_text(encoding="utf-8"))
    except (StubError, SyntaxError, OSError) as error:
        print(f"{STUB.relative_to(ROOT)}: {error}", file=sys.stderr)
        return 1
    if not check:
        PAGE.parent.mkdir(exist_ok=True)
        PAGE.write_text(content, encoding="utf-8")
        return 0
    if PAGE.is_file() and PAGE.read_text(encoding="utf-8") == content:
        return 0
    print(f"{PAGE.relative_to(ROOT)} is stale; run: make docs", file=sys.stderr)
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
