"""Rules that the source text keeps, so that reviewers need not look for them."""

from __future__ import annotations

import re
from pathlib import Path

import pytest

from checks.fault_injection.call_sites import blank_comments
from tests.support import isolated
from tools import check_words

ROOT = isolated.ROOT
MODULE = ROOT / "veldarin" / "modules"


def tracked(*patterns: str) -> list[Path]:
    """Files of the project (kept or about to be) that match one of the patterns."""
    return [ROOT / name for name in check_words.project_files(*patterns)]


def places(files: list[Path], pattern: str) -> list[str]:
    """Every match of the pattern in the code of the files, as "file:line: text"."""
    found = []
    for file in files:
        code = re.sub(r'"(?:\\.|[^"\\\n])*"', '""', blank_comments(file.read_text()))
        for number, line in enumerate(code.splitlines(), start=1):
            if re.search(pattern, line):
                found.append(f"{file.relative_to(ROOT)}:{number}: {line.strip()}")
    return found


MODULE_SOURCES = sorted([*MODULE.rglob("*.cpp"), *MODULE.rglob("*.h")])
# These files run once per process: looking a name up by C string is cheap enough.
ONCE = {"modules_util.cpp", "imports.cpp", "interned.cpp"}
REPEATED = [file for file in MODULE_SOURCES if file.name not in ONCE]


def test_module_sources_are_found() -> None:
    names = {file.stem for file in MODULE_SOURCES}
    assert names >= {*"modules_util cookies json_bridge cli arp_table".split()}
    assert len(names) > 10


# (construct, pattern, reason)
FORBIDDEN = [
    ("exceptions", r"\b(throw|try|catch)\b", "it is built without them"),
    ("run-time types", r"\b(dynamic_cast|typeid)\b", "it is built without them"),
    ("the C++ heap", r"\b(new|delete)\b(?!\s*;)", "it brings the C++ runtime in"),
    ("thread-local data", r"\bthread_local\b|\b__thread\b", "it brings the dynamic loader in"),
    ("virtual functions", r"\bvirtual\b", "their destructors bring the C++ runtime in"),
    (
        "library containers",
        r"\bstd::(string|vector|map|unordered_\w+|function|shared_ptr)\b",
        "they allocate behind the interpreter's back",
    ),
    ("C's allocator", r"(?<![\w.])(malloc|calloc|realloc|free)\s*\(", "buffers are PyMem's"),
    ("unbounded copies", r"\b(strcpy|strcat|sprintf|vsprintf|gets)\s*\(", "they have no bound"),
    ("docstrings", r"\bPyDoc_(STR|VAR|STRVAR)\b", "the module and its functions have none"),
    (
        "the lock's release",
        r"\b(Py_BEGIN_ALLOW_THREADS|PyEval_SaveThread|PyEval_ReleaseThread)\b",
        "every call keeps the interpreter lock",
    ),
    ("threads", r"\bstd::(thread|mutex|atomic)\b|\bpthread_", "the module has none of its own"),
    ("output", r"\b(printf|fprintf|puts|std::cout|std::cerr)\b", "failures are exceptions"),
]


@pytest.mark.parametrize(("what", "pattern", "why"), FORBIDDEN)
def test_module_avoids_forbidden_constructs(what: str, pattern: str, why: str) -> None:
    # `Thing(const Thing &) = delete;` forbids copies and is welcome.
    found = [place for place in places(MODULE_SOURCES, pattern) if "= delete" not in place]
    assert found == [], f"{what}: {why}"


LOOKUPS_BY_C_STRING = (
    r"\b(PyDict_(Get|Set|Del)ItemString|PyObject_(Get|Set|Has|Del)AttrString|PyMapping_\w+String"
    r"|_?PyObject_CallMethod(?!(ObjArgs|OneArg|NoArgs|Obj))\w*|PyUnicode_InternFromString"
    r"|PyImport_(ImportModule|AddModule)|PyModule_Add\w+|PyRun_\w+|PyArg_Parse\w*)\s*\("
)


def test_calls_use_interned_strings() -> None:
    assert places(REPEATED, LOOKUPS_BY_C_STRING) == []


def test_dict_lookup_does_not_suppress_errors() -> None:
    assert places(MODULE_SOURCES, r"\bPyDict_GetItem(String)?\s*\(") == []


def test_utf8_conversion_result_is_checked() -> None:
    unchecked = r"(?<!= )\bPyUnicode_AsUTF8(AndSize)?\([^;]*\)\s*[,)]"
    assert places(MODULE_SOURCES, unchecked) == []


# A text that is compared by the outside world is written once.
TEXTS = [
    "Interpreter change detected",
    "Re-initialisation is not supported",
    "compiletime version",
    "size changed, may indicate",
    "invalid vtable found",
    "does not export expected C variable",
    "does not export expected C function",
    '"C variable %',
    '"C function %',
    "%s %zd positional argument",
    "keywords must be strings",
    "%s() got multiple values for keyword",
    "got an unexpected keyword",
    "has incorrect type (expected",
    "is not defined",
    "referenced before assignment",
    "has no len()",
    "expected bytes, ",
    "Could not allocate memory",
    "result is null",
    "--More--",
    "get router info bfd neighbor",
    "get router info6 bfd neighbor",
    "get router info routing-table detail",
    "get system arp",
    "bytes_sent bytes_recv",
    "Invalid index %s",
]


def test_string_literal_is_defined_once() -> None:
    sources = "\n".join(blank_comments(file.read_text()) for file in MODULE_SOURCES)
    joined = re.sub(r'"\s*"', "", sources)  # as the compiler joins literals that follow each other
    # The summary command of the BFD neighbor list is also the prefix of its detail command.
    allowed = {text: {1, 2} if "bfd neighbor" in text else {1} for text in TEXTS}
    assert [text for text in TEXTS if joined.count(text) not in allowed[text]] == []


# Every text file of the project

COMMENTED = tracked(
    *"*.py *.pyi *.pyx *.pxd *.cpp *.h *.c *.cmake *.js *.css *.toml".split(),
    *"CMakeLists.txt **/CMakeLists.txt Makefile tools/* .ci/*".split(),
)
DOCSTRING = re.compile(r'\A(?:#![^\n]*\n)?\s*r?"""(.*?)"""', re.DOTALL)
HASH_LINES = re.compile(r"\A(?:#![^\n]*\n)?((?:#(?!!)[^\n]*\n)+)")
SLASH_LINES = re.compile(r"\A((?://[^\n]*\n)+)")
BLOCK = re.compile(r"\A/\*(.*?)\*/", re.DOTALL)


def opening(file: Path) -> str:
    """The words of a file's first comment."""
    c_family = file.suffix in {".cpp", ".c", ".h", ".js", ".css"}
    for pattern in (SLASH_LINES, BLOCK) if c_family else (DOCSTRING, HASH_LINES):
        found = pattern.match(file.read_text())
        if found is not None:
            return " ".join(re.sub(r"^\s*(//+|#+|\*)", "", found[1], flags=re.MULTILINE).split())
    return ""


def test_source_file_begins_with_description() -> None:
    sentence = re.compile(r".{10,}?\w\S*[.:](\s|$)")
    assert [
        str(file.relative_to(ROOT)) for file in COMMENTED if not sentence.match(opening(file))
    ] == []


TEXT_FILES = [
    file
    for file in tracked()
    if file.suffix in {".py", ".pyi", ".pyx", ".pxd", ".cpp", ".h", ".c", ".cmake", ".md", ".toml"}
    or file.suffix in {".js", ".css", ".html"}
    or file.name in {"Makefile", "CMakeLists.txt", "run", "bootstrap"}
]
LEFTOVER = re.compile(r"\b(TODO|FIXME|XXX|HACK|WIP)\b")
MACHINE = re.compile(r"(?<![\w.])/(root|work|home|Users)/|/tmp/\w")


def lines_with(pattern: re.Pattern[str]) -> list[str]:
    """Lines of the project's text files, but this one, in which the pattern is found."""
    return [
        f"{file.relative_to(ROOT)}: {line.strip()}"
        for file in TEXT_FILES
        if file != Path(__file__)
        for line in file.read_text().splitlines()
        if pattern.search(line)
    ]


def test_project_has_no_leftover_markers() -> None:
    assert lines_with(LEFTOVER) == []


def test_project_has_no_machine_path() -> None:
    assert lines_with(MACHINE) == []


def test_console_page_lines_have_at_most_100_columns() -> None:
    page = [file for file in TEXT_FILES if file.suffix in {".js", ".css", ".html"}]
    assert len(page) > 10
    assert [
        f"{file.name}:{number}"
        for file in page
        for number, line in enumerate(file.read_text().splitlines(), 1)
        if len(line) > 100
    ] == []


def test_module_header_has_include_guard() -> None:
    headers = [file for file in MODULE_SOURCES if file.suffix == ".h"]
    assert [file.name for file in headers if "#pragma once" not in file.read_text()] == []
