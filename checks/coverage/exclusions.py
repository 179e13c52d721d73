"""Lines and branches that cannot run, each with the reason.

Every report prints these rows with the number of lines they apply to. An unused row is a finding.
"""

from __future__ import annotations

from typing import NamedTuple


class Exclusion(NamedTuple):
    """Excludes the lines that contain `text`, or that many branches of each.

    `file` is a file or a folder.
    """

    file: str
    text: str
    reason: str
    branches: int = 0
    line: bool = False


MODULE = "veldarin/modules/"
TEMPORARY = "the compiler tests whether it must destroy a temporary, which always exists"
COMPACT = "a new string always has the compact layout"
NOT_ASCII = "ASCII strings do not get here"
ALL_ENUMERATORS = "the switch handles every enumerator"
NEVER_TRUE = "fail() adds a traceback entry and always returns false"
EXCLUSIONS = [
    Exclusion(MODULE, "|| fail(", NEVER_TRUE, branches=1),
    Exclusion(
        f"{MODULE}parsers/bfd_neighbor.cpp",
        "PyDict_GET_SIZE(session_.get())",
        "a session with a name is not empty",
        branches=1,
    ),
    Exclusion(
        f"{MODULE}parsers/bfd_neighbor.cpp",
        "if (count < 2) return fail_with_index_error(at::neighbor_ip)",
        "a header line contains a space",
        branches=1,
    ),
    Exclusion(
        f"{MODULE}parsers/bfd_neighbor.cpp", "put_into(session_, parse_key(", TEMPORARY, branches=1
    ),
    Exclusion(
        f"{MODULE}parsers/routing_table.cpp", "put(route, id::ip, strings.", TEMPORARY, branches=1
    ),
    Exclusion(
        f"{MODULE}modules_util.cpp", "set_constant(state.imports.range, ", TEMPORARY, branches=1
    ),
    Exclusion(
        f"{MODULE}dispatch.cpp",
        "if (!accepts(function.parameters[0], argument))",
        "a parameter without a type accepts any argument",
        branches=1,
    ),
    Exclusion(
        f"{MODULE}text/utf8_text.cpp",
        "PyUnicode_1BYTE_DATA(ascii)",
        "only compact ASCII strings get here",
        branches=1,
    ),
    Exclusion(
        f"{MODULE}text/utf8_text.cpp",
        "PyUnicode_1BYTE_DATA(result.get())",
        COMPACT,
        branches=2,
    ),
    Exclusion(
        f"{MODULE}text/utf8_text.cpp",
        "PyUnicode_DATA(copy.get())",
        "a new string of wider characters is compact and not ASCII",
        branches=2,
    ),
    Exclusion(f"{MODULE}text/utf8_text.cpp", "PyUnicode_DATA(text)", NOT_ASCII, branches=1),
    Exclusion(f"{MODULE}text/string_cache.cpp", "PyUnicode_DATA(string)", COMPACT, branches=1),
    Exclusion(f"{MODULE}json_bridge.cpp", "switch (when) {", ALL_ENUMERATORS, branches=1),
    Exclusion(f"{MODULE}json_bridge.cpp", "Py_UNREACHABLE();", ALL_ENUMERATORS, line=True),
]
