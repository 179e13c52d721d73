"""The module's fallible calls: those in the sources, those recorded, and those that the built file
refers to, held against each other.

Fallible is what native/calls.h names. What the module calls besides is in cannot_fail.txt with a
reason that somebody has reviewed.
"""

from __future__ import annotations

import re
import subprocess
import sys
import sysconfig
from collections.abc import Iterator
from pathlib import Path
from typing import NamedTuple

from checks.fault_injection.libfaults import Row

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
SOURCES = sorted(
    file
    for folder in ("veldarin/modules", "util", "migbase")
    for file in ROOT.joinpath(folder).rglob("*.*")
    if file.suffix in {".cpp", ".h"}
)
# Macros of the interpreter's, and what calls.h makes of them.
RENAMED = {
    "PyCFunction_NewEx": "PyCMethod_New",
    "PyObject_GC_New": "_PyObject_GC_New",
    "PyUnicode_READY": "_PyUnicode_Ready",
}

DEFINED = re.compile(r"^#define (\w+)\(", re.MULTILINE)
CALLED = re.compile(r"\b(_?Py[A-Z]\w*_\w+|_?Py_[A-Z]\w*|json_object_to_json_string)\s*\(")
COMMENT_OR_TEXT = re.compile(r'"(?:\\.|[^"\\\n])*"|//[^\n]*|/\*.*?\*/', re.DOTALL)


class Site(NamedTuple):
    """A fallible call in the sources."""

    file: str
    line: int
    call: str

    @property
    def api(self) -> str:
        """The interface that is called."""
        return self.call.partition("(")[0]

    @property
    def key(self) -> str:
        """What the record calls it."""
        return f"{self.file}:{self.line}:{self.call}"


def fallible() -> set[str]:
    """The interfaces that calls.h names."""
    names = set(DEFINED.findall((HERE / "native" / "instrumented_calls.h").read_text()))
    return {RENAMED.get(name, name) for name in names if not name.startswith("FAULTS_")}


def cannot_fail() -> dict[str, str]:
    """The interfaces that cannot fail where the module calls them, with the reason."""
    lines = (HERE / "infallible_calls.txt").read_text().splitlines()
    rows = (line.split(None, 1) for line in lines if line and not line.startswith("#"))
    return {row[0]: row[1] for row in rows}


def calls(file: Path) -> Iterator[Site]:
    """Every call into the interpreter in a source, macros included."""
    text = COMMENT_OR_TEXT.sub(
        lambda found: found[0] if found[0][0] == '"' else re.sub(r"[^\n]", " ", found[0]),
        file.read_text(),
    )
    name = str(file.relative_to(ROOT))
    for found in CALLED.finditer(text):
        if text[: found.start()].endswith("#define ") or _is_declaration(text, found.start()):
            continue
        line = text.count("\n", 0, found.start()) + 1
        api = RENAMED.get(found[1], found[1])
        yield Site(name, line, f"{api}({_arguments(text, found.end())})")


def _is_declaration(text: str, at: int) -> bool:
    line = text[text.rfind("\n", 0, at) + 1 : at]
    return bool(re.match(r"\s*(PyMODINIT_FUNC|const char \*)\s*$", line))


def _arguments(text: str, at: int) -> str:
    """From behind an opening parenthesis to its end, white space outside texts as one blank."""
    depth, parts, start = 1, [], at
    while depth:
        if text[at] == '"':
            end = COMMENT_OR_TEXT.match(text, at).end()  # type: ignore[union-attr]
            parts += [re.sub(r"\s+", " ", text[start:at]), text[at:end]]
            start = at = end
            continue
        depth += {"(": 1, ")": -1}.get(text[at], 0)
        at += 1
    parts.append(re.sub(r"\s+", " ", text[start : at - 1]))
    return "".join(parts).strip()


def sites() -> list[Site]:
    """The fallible calls in the sources."""
    names = fallible()
    return [site for file in SOURCES for site in calls(file) if site.api in names]


def unknown_calls() -> list[str]:
    """Calls in the sources that are neither fallible nor reviewed."""
    known = fallible() | set(cannot_fail())
    return [site.key for file in SOURCES for site in calls(file) if site.api not in known]


def unknown_symbols(product: Path) -> list[str]:
    """Functions of the interpreter's that the shipped file refers to, neither fallible nor
    reviewed."""
    known = fallible() | set(cannot_fail())
    functions = {name for kind, name in _symbols(_interpreter(), "--defined-only") if kind in "TW"}
    undefined = {name for _kind, name in _symbols(product, "--undefined-only")}
    return sorted(undefined & functions - known)


def _symbols(file: Path, which: str) -> list[tuple[str, str]]:
    listed = subprocess.run(
        ["nm", "-D", which, str(file)], capture_output=True, text=True, check=True
    ).stdout
    rows = (line.split()[-2:] for line in listed.splitlines())
    return [(kind, name.partition("@")[0]) for kind, name in rows]


def _interpreter() -> Path:
    """The file that holds the interpreter's C interface."""
    if not sysconfig.get_config_var("Py_ENABLE_SHARED"):
        return Path(sys.executable).resolve()
    maps = Path("/proc/self/maps").read_text().splitlines()
    return next(Path(line.split()[-1]) for line in maps if "/libpython3.9" in line)


class Failed(NamedTuple):
    """A fallible call and how often it failed, in which way."""

    site: Site
    row: Row | None

    @property
    def times(self) -> int:
        """How often it failed, whatever the reason."""
        return 0 if self.row is None else self.row.of_memory + self.row.otherwise + self.row.forced


def table(rows: list[Row]) -> tuple[list[Failed], list[str]]:
    """The calls in the sources with what was recorded of them, and records of no such call."""
    recorded = {row.key.decode(): row for row in rows}
    failed = [Failed(site, recorded.pop(site.key, None)) for site in sites()]
    return failed, list(recorded)


def lines(failed: list[Failed]) -> Iterator[str]:
    """The table as text: where, in which function, what, and how often it was made and failed."""
    yield f"{'reached':>9} {'memory':>8} {'other':>8}  call"
    for site, row in failed:
        counts = (0, 0, 0) if row is None else (row.reached, row.of_memory, row.otherwise)
        function = "" if row is None else f" in {row.function.decode()}"
        yield "{:>9} {:>8} {:>8}  {}{}".format(*counts, site.key, function)
