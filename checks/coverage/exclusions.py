"""Lines and branches that cannot run, each with the reason.

Every report prints these rows with the number of lines they apply to. An unused row is a finding.
"""

from __future__ import annotations

from typing import NamedTuple


class Exclusion(NamedTuple):
    """Excludes that many branches of the lines that contain `text`; with 0 branches, the lines.

    `file` is a file or folder in the module's sources.
    """

    file: str
    text: str
    reason: str
    branches: int = 1


NEVER_TRUE = "fail() adds a traceback entry and always returns false"
TEMPORARY = "the compiler tests whether it must destroy a temporary, which always exists"
UNTYPED = "a parameter without a type accepts any argument"
COMPACT_ASCII = "only compact ASCII strings get here"
COMPACT = "a new string always has the compact layout"
COMPACT_WIDE = "a new string of wider characters is compact and not ASCII"
NOT_ASCII = "ASCII strings do not get here"
ALL_ENUMERATORS = "the switch handles every enumerator"
NEIGHBOR, UTF8 = "parsers/bfd_neighbor.cpp", "text/utf8_text.cpp"
EXCLUSIONS = [
    Exclusion("", "|| fail(", NEVER_TRUE),
    Exclusion(NEIGHBOR, "put_into(session_, parse_key(", TEMPORARY),
    Exclusion("parsers/routing_table.cpp", "put(route, id::ip, strings.", TEMPORARY),
    Exclusion("modules_util.cpp", "set_constant(state.imports.range, ", TEMPORARY),
    Exclusion("dispatch.cpp", "if (!accepts(function.parameters[0], argument))", UNTYPED),
    Exclusion("python/binding.cpp", "PyUnicode_DATA(interned[", COMPACT_ASCII, 2),
    Exclusion(UTF8, "PyUnicode_DATA(copy.get())", COMPACT_WIDE, 2),
    Exclusion(UTF8, "PyUnicode_DATA(text)", NOT_ASCII),
    Exclusion("text/string_cache.cpp", "PyUnicode_DATA(string)", COMPACT),
    Exclusion("json_bridge.cpp", "switch (when) {", ALL_ENUMERATORS),
    Exclusion("json_bridge.cpp", "Py_UNREACHABLE();", ALL_ENUMERATORS, 0),
]
