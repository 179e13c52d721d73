"""Generate docs/functions.md, the page of the module's functions, from the type stub.

Each heading of the stub becomes a section of the page, each function, class and variable an entry
with its declaration and its docstring.
"""

from __future__ import annotations

import argparse
import re
import sys
from pathlib import Path

from veldarin_simulator import stub

ROOT = Path(__file__).resolve().parents[1]
PAGE = ROOT / "docs" / "functions.md"

_TITLE = "# Functions of veldarin.modules.modules_util"
_NOTICE = (
    "<!-- Written by tools/generate_function_docs.py"
    " from modules_util.pyi: edit that, `make docs`. -->"
)


class StubError(ValueError):
    """A stub that cannot become a page; the message is one line."""


def page(source: str) -> str:
    """Return the page for the text of a stub.

    Raises:
        StubError: An entry has no heading above it, or no docstring.
        SyntaxError: The text is not Python.
    """
    parsed = stub.parse(source)
    rows = [
        f"| {number} | [`{name}`](#{name}) | {function.summary} |"
        for number, (name, function) in enumerate(parsed.functions.items(), 1)
    ]
    contents = "\n".join(["| | Function | |", "|---|---|---|", *rows])
    blocks = [_TITLE, _NOTICE, parsed.docstring, contents]
    for section in parsed.sections:
        blocks += [f"## {section.title}", section.text]
        for entry in section.entries:
            for missing, what in ((section.title, "heading above"), (entry.docstring, "docstring")):
                if not missing:
                    raise StubError(f"line {entry.line}: {entry.name} has no {what}")
            blocks += [f"### {entry.name}", _fenced(entry.declaration), entry.text]
            blocks += [_listed("Args", entry.args), _listed("Raises", entry.raises)]
            blocks.append(_fenced(entry.example))
    return "\n\n".join(block for block in blocks if block) + "\n"


def _listed(title: str, text: str) -> str:
    rows = re.sub(r"\n +", " ", text).splitlines()
    if not all(re.match(r"\w+: ", row) for row in rows):
        return f"{title}: {text[0].lower()}{text[1:]}"  # a sentence instead of a list
    items = [re.sub(r"^(\w+): ", r"- `\1`: ", row) for row in rows]
    return "\n".join([f"{title}:", "", *items]) if items else ""


def _fenced(code: str) -> str:
    return f"```python\n{code}\n```" if code else ""


def main(arguments: list[str]) -> int:
    """Write or check the page and return the exit status."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument(
        "--check", action="store_true", help="write nothing; exit status 1 if the page is stale"
    )
    check = parser.parse_args(arguments).check
    try:
        content = page(stub.STUB.read_text(encoding="utf-8"))
    except (StubError, SyntaxError, OSError) as error:
        print(f"{stub.STUB.relative_to(ROOT)}: {error}", file=sys.stderr)
        return 1
    if not check:
        PAGE.parent.mkdir(exist_ok=True)
        PAGE.write_text(content, encoding="utf-8")
        return 0
    if PAGE.is_file() and PAGE.read_text(encoding="utf-8") == content:
        return 0
    print(f"{PAGE.relative_to(ROOT)} is stale: make docs", file=sys.stderr)
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
