"""The module's fallible calls: in the sources, in the call-site log and in the built file.

native/instrumented_calls.h names the fallible functions; infallible_calls.txt names the others that
the module calls, each with the reason.
"""

from __future__ import annotations

import re
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path
from typing import NamedTuple

from checks.fault_injection.libfaults import Row
from tests.support.isolated import ROOT

HERE = Path(__file__).resolve().parent
SOURCES = sorted(
    file
    for folder in ("veldarin/modules", "util", "migbase")
    for file in ROOT.joinpath(folder).rglob("*.*")
    if file.suffix in {".cpp", ".h"}
)
# Macros of the interpreter, and the functions that instrumented_calls.h replaces them with.
MACROS = {
    "PyCFunction_NewEx": "PyCMethod_New",
    "PyObject_GC_New": "_PyObject_GC_New",
    "PyUnicode_READY": "_PyUnicode_Ready",
}

DEFINED = re.compile(r"^#define (\w+)\(", re.MULTILINE)
CALLED = re.compile(r"\b(_?Py[A-Z]\w*_\w+|_?Py_[A-Z]\w*|json_object_to_json_string)\s*\(")
COMMENT_OR_STRING = re.compile(r'"(?:\\.|[^"\\\n])*"|//[^\n]*|/\*.*?\*/', re.DOTALL)


class CallSite(NamedTuple):
    """A call into the interpreter in the sources."""

    file: str
    line: int
    call: str

    @property
    def function(self) -> str:
        """The function that is called."""
        return self.call.partition("(")[0]

    @property
    def key(self) -> str:
        """The key of the log's row."""
        return f"{self.file}:{self.line}:{self.call}"


class ForcedFailure(NamedTuple):
    """A call that only the sweep can make fail, the case that reaches it, and the reason."""

    call: str
    case: str
    reason: str


EXECUTION = "import: execution: after a failure"
FORCED_FAILURES = [
    ForcedFailure(
        "PyInterpreterState_GetID(PyInterpreterState_Get())",
        "import: creation: from a whole spec",
        "an interpreter that runs code has an ID",
    ),
    ForcedFailure(
        "PyDict_GetItemWithError(builtins, interned[id::dunder_import])",
        EXECUTION,
        "the keys of the builtins are comparable",
    ),
    ForcedFailure("PyLong_FromLong(0)", EXECUTION, "the interpreter preallocates small integers"),
    ForcedFailure("PyLong_FromLong(32)", EXECUTION, "the interpreter preallocates small integers"),
    ForcedFailure(
        "PyDict_SetItem(state.globals, interned[id::dunder_name], interned[id::dunder_main])",
        "import: execution: as the main module",
        "the key exists and only its value changes",
    ),
    ForcedFailure(
        "PyUnicode_Compare(keyword, interned[function.parameters[i].name])",
        "get_bfd_neighbor-missing beside unknown keyword",
        "dictionary keys are ready strings",
    ),
    ForcedFailure(
        "PyCapsule_GetPointer(item.get(), signature)",
        EXECUTION,
        "the module has checked the capsule's pointer and name",
    ),
    ForcedFailure(
        "PyDict_SetItem(arp.get(), interned[id::interface], interface.get())",
        "get_system_arp_result-()",
        "the key exists and only its value changes",
    ),
    ForcedFailure(
        "PyErr_SetObject(PyExceptionInstance_Class(raised.get()), raised.get())",
        "get_cli_command_output-no output",
        "raising an existing exception allocates nothing",
    ),
]


def fallible_functions() -> set[str]:
    """Read the function names in instrumented_calls.h."""
    names = set(DEFINED.findall((HERE / "native" / "instrumented_calls.h").read_text()))
    return {MACROS.get(name, name) for name in names if not name.startswith("FAULTS_")}


def infallible_functions() -> dict[str, str]:
    """Read the function names in infallible_calls.txt, with the reasons."""
    lines = (HERE / "infallible_calls.txt").read_text().splitlines()
    rows = (line.split(None, 1) for line in lines if line and not line.startswith("#"))
    return {row[0]: row[1] for row in rows}


def blank_comments(text: str) -> str:
    """Replace the comments in C++ code with spaces."""
    return COMMENT_OR_STRING.sub(
        lambda found: found[0] if found[0][0] == '"' else re.sub(r"[^\n]", " ", found[0]), text
    )


def find_calls(file: Path) -> Iterator[CallSite]:
    """Find every call into the interpreter in a source, macros included."""
    text = blank_comments(file.read_text())
    name = str(file.relative_to(ROOT))
    for found in CALLED.finditer(text):
        before = text[text.rfind("\n", 0, found.start()) + 1 : found.start()]
        if re.search(r"#define $|^\s*(PyMODINIT_FUNC|const char \*)\s*$", before):
            continue  # a definition or declaration
        line = text.count("\n", 0, found.start()) + 1
        function = MACROS.get(found[1], found[1])
        yield CallSite(name, line, f"{function}({_read_arguments(text, found.end())})")


def _read_arguments(text: str, at: int) -> str:
    """Read up to the closing parenthesis and collapse the white space outside strings."""
    depth, parts, start = 1, [], at
    while depth:
        if text[at] == '"':
            end = COMMENT_OR_STRING.match(text, at).end()  # type: ignore[union-attr]
            parts += [re.sub(r"\s+", " ", text[start:at]), text[at:end]]
            start = at = end
            continue
        depth += {"(": 1, ")": -1}.get(text[at], 0)
        at += 1
    parts.append(re.sub(r"\s+", " ", text[start : at - 1]))
    return "".join(parts).strip()


def find_fallible_calls() -> list[CallSite]:
    """Find the fallible calls in the sources."""
    names = fallible_functions()
    return [site for file in SOURCES for site in find_calls(file) if site.function in names]


def find_unreviewed_calls() -> list[str]:
    """Find calls in the sources to functions that neither list names."""
    known = {*fallible_functions(), *infallible_functions()}
    return [site.key for file in SOURCES for site in find_calls(file) if site.function not in known]


def find_unreviewed_symbols(module: Path) -> list[str]:
    """Find functions of the interpreter that the built file uses and neither list names."""
    # A build with the library may have an executable that does not need it, as Debian's.
    maps = Path("/proc/self/maps").read_text().splitlines()
    libraries = (Path(line.split(maxsplit=5)[5]) for line in maps if "/libpython3.9" in line)
    interpreter = next(libraries, Path(sys.executable).resolve())
    defined = read_symbols(interpreter, "--defined-only")
    functions = {name for kind, name in defined if kind in "TW"}
    undefined = {name for _kind, name in read_symbols(module, "--undefined-only")}
    return sorted(undefined & functions - {*fallible_functions(), *infallible_functions()})


def read_symbols(file: Path, option: str) -> list[tuple[str, str]]:
    """List the dynamic symbols of a file with nm, as (kind, name)."""
    listing = subprocess.run(
        ["nm", "-D", option, str(file)], capture_output=True, text=True, check=True
    ).stdout
    rows = (line.split()[-2:] for line in listing.splitlines())
    return [(kind, name.partition("@")[0]) for kind, name in rows]


class CallSiteCoverage(NamedTuple):
    """A fallible call with its row of the log, if it was reached."""

    site: CallSite
    row: Row | None

    @property
    def failures(self) -> int:
        """How often it failed, for whatever reason."""
        return 0 if self.row is None else self.row.oom + self.row.other + self.row.forced

    def __str__(self) -> str:
        row = self.row or Row()
        function = f" in {row.function.decode()}" if row.function else ""
        return f"{row.reached:>9} {row.oom:>8} {row.other:>8}  {self.site.key}{function}"


TABLE_HEAD = f"{'reached':>9} {'oom':>8} {'other':>8}  call"


def match_log(rows: list[Row]) -> tuple[list[CallSiteCoverage], list[str]]:
    """Match the log against the sources.

    Returns:
        The fallible calls, and the keys of rows that match no call.
    """
    logged = {row.key.decode(): row for row in rows}
    coverage = [
        CallSiteCoverage(site, logged.pop(site.key, None)) for site in find_fallible_calls()
    ]
    return coverage, list(logged)
