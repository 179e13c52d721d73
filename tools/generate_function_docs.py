#!/usr/bin/env python3
"""Writes docs/functions.md, the reference of the module's functions, from its type stub.

`make docs` writes the page; a test runs `--check` (exit status 1 if the page is stale). The stub is
read, not imported, and determines the order: a comment line of dashes and a title, with the comment
after it, becomes a section; a function or class with its docstring, or a name with the text after
it, an entry of the section. "Raises:" and "Example:" in a docstring begin parts.
"""

from __future__ import annotations

import argparse
import inspect
import re
import sys
from pathlib import Path

import griffe

ROOT = Path(__file__).resolve().parents[1]
STUB = ROOT / "veldarin" / "modules" / "modules_util.pyi"
PAGE = ROOT / "docs" / "functions.md"

_HEADER = """# Functions of veldarin.modules.modules_util

<!-- Written by tools/generate_function_docs.py from modules_util.pyi: edit that, `make docs`. -->
"""
_SECTION = re.compile(r"^# -{10,} (\S.*)\n((?:#.*\n)*)", re.MULTILINE)
_PARTS = ("Raises:", "Example:")


class StubError(ValueError):
    """A stub without the structure that the page needs; the message is one line."""


def page(source: str) -> str:
    """Returns the page for a stub. Raises `StubError`, `SyntaxError`."""
    stub = griffe.visit(STUB.stem, filepath=STUB, code=source)
    sections = {}
    for match in _SECTION.finditer(source):
        text = re.sub(r"^# ?", "", match[2], flags=re.MULTILINE).strip()
        sections[source.count("\n", 0, match.start()) + 1] = [f"## {match[1]}", text]
    contents = ["| | Function | |", "|---|---|---|"]
    for name, entry in stub.members.items():
        if entry.is_alias:
            continue  # an import
        line = entry.lineno or 0
        section = max((start for start in sections if start < line), default=None)
        if section is None:
            raise StubError(f"line {line}: {name} is not below a heading")
        if entry.docstring is None:
            raise StubError(f"line {line}: {name} has no docstring")
        text = entry.docstring.value
        if entry.is_function:
            summary = text.partition("\n")[0]
            contents.append(f"| {len(contents) - 1} | [`{name}`](#{name}) | {summary} |")
        sections[section] += [f"### {name}", _fenced(_declaration(entry)), _format(text)]
    introduction = stub.docstring.value if stub.docstring else ""
    blocks = [_HEADER.strip(), introduction, "\n".join(contents)]
    blocks += [block for section in sections.values() for block in section]
    return "\n\n".join(block for block in blocks if block) + "\n"


def _declaration(entry: griffe.Object | griffe.Alias) -> str:
    """Returns the declaration of a function, class or name on as few lines as possible."""
    if isinstance(entry, griffe.Function):
        return entry.signature()
    if isinstance(entry, griffe.Class):
        fields = [_declaration(field) for field in entry.members.values()]
        return "\n    ".join([f"class {entry.name}({', '.join(map(str, entry.bases))}):", *fields])
    assert isinstance(entry, griffe.Attribute)
    annotation = f": {entry.annotation}" if entry.annotation else ""
    return f"{entry.name}{annotation}" + (f" = {entry.value}" if entry.value else "")


def _format(docstring: str) -> str:
    """Formats a docstring, which is Markdown but for its parts."""
    blocks: list[list[str]] = [[""]]
    for line in docstring.splitlines():
        if line in _PARTS:
            blocks.append([line])
        elif blocks[-1][0] and line and not line.startswith(" "):
            blocks.append(["", line])  # text after a part
        else:
            blocks[-1].append(line)
    return "\n\n".join(filter(None, map(_format_block, blocks)))


def _format_block(lines: list[str]) -> str:
    part, content = lines[0], inspect.cleandoc("\n".join(["", *lines[1:]])).strip()
    if part == "Example:":
        return _fenced(content)
    if part != "Raises:":
        return content
    rows = re.sub(r"\n +", " ", content).splitlines()
    if not all(re.match(r"\w+: ", row) for row in rows):
        return f"Raises: {content[0].lower()}{content[1:]}"  # prose instead of a list
    return "Raises:\n\n" + "\n".join(re.sub(r"^(\w+): ", r"- `\1`: ", row) for row in rows)


def _fenced(code: str) -> str:
    return f"```python\n{code}\n```"


def main(arguments: list[str]) -> int:
    """Writes or checks the page and returns the exit status."""
    parser = argparse.ArgumentParser(description="Writes docs/functions.md from the type stub.")
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
