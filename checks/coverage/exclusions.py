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
    Excluded(MODULE, "|| fail(", "fail() adds an entry and is never true", branches=1),
    Excluded(
        f"{MODULE}parsers/bfd_neighbor.cpp",
        "PyDict_GET_SIZE(session_.get())",
        "with a name the session holds something",
        branches=1,
    ),
    Excluded(
        f"{MODULE}parsers/bfd_neighbor.cpp",
        "if (count < 2) return index_error(at::neighbor_ip)",
        "a header is a line with a blank",
        branches=1,
    ),
    Excluded(
        f"{MODULE}parsers/bfd_neighbor.cpp", "put_into(session_, parse_key(", TEMPORARY, branches=1
    ),
    Excluded(
        f"{MODULE}parsers/routing_table.cpp",
        "put(route, interned[id::ip], strings.",
        TEMPORARY,
        branches=1,
    ),
    Excluded(
        f"{MODULE}modules_util.cpp",
        "set_constant(state.imports.range, builtin(",
        TEMPORARY,
        branches=1,
    ),
    Excluded(
        f"{MODULE}dispatch.cpp",
        "if (!accepts(function.parameters[0], argument))",
        "a parameter without a type accepts everything",
        branches=1,
    ),
    Excluded(
        f"{MODULE}text/utf8_text.cpp",
        "PyUnicode_1BYTE_DATA(ascii)",
        "a compact text of characters beyond ASCII does not come here",
        branches=1,
    ),
    Excluded(
        f"{MODULE}text/utf8_text.cpp",
        "PyUnicode_1BYTE_DATA(result.get())",
        "a text that was made just now has its storage in one of the macro's places only",
        branches=2,
    ),
    Excluded(
        f"{MODULE}text/utf8_text.cpp",
        "PyUnicode_DATA(copy.get())",
        "a new string of wider characters is compact and not ASCII",
        branches=2,
    ),
    Excluded(
        f"{MODULE}text/utf8_text.cpp",
        "PyUnicode_DATA(text)",
        "an ASCII text does not get here",
        branches=1,
    ),
    Excluded(
        f"{MODULE}text/string_cache.cpp",
        "PyUnicode_DATA(string)",
        "a new string is compact",
        branches=1,
    ),
    Excluded(f"{MODULE}json_bridge.cpp", "switch (when) {", "every kind has a case", branches=1),
    Excluded(f"{MODULE}json_bridge.cpp", "Py_UNREACHABLE();", "every kind has a case", line=True),
]
