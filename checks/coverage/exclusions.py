"""Branches and lines that nothing can run, each with the reason: reviewed, and printed with every
report. A row that leaves nothing out, or whose line is no more, is an error.
"""

from __future__ import annotations

from typing import NamedTuple


class Excluded(NamedTuple):
    """In each instance of the lines that hold `text`, this many branches are never taken, or the
    line itself never runs. `file` is a file or a folder."""

    file: str
    text: str
    reason: str
    branches: int = 0
    line: bool = False


MODULE = "veldarin/modules/"
TEMPORARY = "before a temporary ends the compiler asks whether it was made, and it always was"
EXCLUDED = [
    Excluded(MODULE, "|| failed(", "failed() adds an entry and is never true", branches=1),
    Excluded(
        f"{MODULE}bfd.cpp",
        "PyDict_GET_SIZE(session_.get())",
        "with a name the session holds something",
        branches=1,
    ),
    Excluded(
        f"{MODULE}bfd.cpp",
        "if (count < 2) return index_error(at::neighbor_ip)",
        "a header is a line with a blank",
        branches=1,
    ),
    Excluded(f"{MODULE}bfd.cpp", "put_into(session_, new_key(", TEMPORARY, branches=1),
    Excluded(f"{MODULE}routing.cpp", "put(route, names.ip, strings.", TEMPORARY, branches=1),
    Excluded(
        f"{MODULE}modules_util.cpp", "keep(state.imports.range, builtin(", TEMPORARY, branches=1
    ),
    Excluded(
        f"{MODULE}functions.cpp",
        "if (!accepts(function.parameters[0], argument))",
        "a parameter without a type accepts everything",
        branches=1,
    ),
    Excluded(
        f"{MODULE}runtime/text.cpp",
        "return Py_UNICODE_ISSPACE(character) != 0;",
        "the macro asks for ASCII first, which this is not",
        branches=1,
    ),
    Excluded(
        f"{MODULE}runtime/text.cpp",
        "PyUnicode_1BYTE_DATA(ascii)",
        "a compact text of characters beyond ASCII does not come here",
        branches=1,
    ),
    Excluded(
        f"{MODULE}runtime/text.cpp",
        "PyUnicode_1BYTE_DATA(made.get())",
        "a text that was made just now has its storage in one of the macro's places only",
        branches=2,
    ),
    Excluded(
        f"{MODULE}runtime/text.cpp",
        "PyUnicode_DATA(copy.get())",
        "a string that was made just now is compact and not ASCII",
        branches=2,
    ),
    Excluded(
        f"{MODULE}runtime/text.cpp",
        "PyUnicode_DATA(text)",
        "an ASCII text does not come here",
        branches=1,
    ),
    Excluded(
        f"{MODULE}runtime/strings.cpp",
        "PyUnicode_DATA(made)",
        "a string that was made just now is compact",
        branches=1,
    ),
    Excluded(f"{MODULE}status.cpp", "switch (keyed) {", "every kind has a case", branches=1),
    Excluded(f"{MODULE}status.cpp", "Py_UNREACHABLE();", "every kind has a case", line=True),
]
