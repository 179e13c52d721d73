"""The module's layers: a source includes headers of its own layer and of lower ones only."""

from __future__ import annotations

import re

from tests.support.isolated import ROOT

MODULE = ROOT / "veldarin" / "modules"
# From the lowest to the highest, without suffixes.
LAYERS = [
    ["text/scan", "python/ref", "function_table"],
    ["text/utf8_text", "text/string_cache"],
    ["interned", "modules", "state", "traceback_lines", "native_services"],
    [
        "python/binding",
        "python/errors",
        "python/globals",
        "python/imports",
        "python/traceback",
        "python/with_statement",
    ],
    ["cli", "cookies", "json_bridge"],
    ["parsers/bfd_neighbor", "parsers/routing_table", "parsers/arp_table"],
    ["parsers/bfd_neighbor_list"],
    ["dispatch"],
    ["modules_util"],
]
RANKS = {name: rank for rank, layer in enumerate(LAYERS) for name in layer}
INCLUDE = re.compile(r'^#include "veldarin/modules/([\w/]+)\.\w+"$', re.MULTILINE)
SOURCES = {
    file: str(file.relative_to(MODULE).with_suffix(""))
    for pattern in ("*.cpp", "*.h", "*.def")
    for file in MODULE.rglob(pattern)
}


def test_every_source_has_a_layer() -> None:
    assert set(SOURCES.values()) == set(RANKS)


def test_no_source_includes_a_higher_layer() -> None:
    assert [
        f"{name} includes {included}"
        for file, name in SOURCES.items()
        for included in INCLUDE.findall(file.read_text())
        if RANKS[included] > RANKS[name]
    ] == []


def test_scanner_includes_no_interpreter() -> None:
    included = INCLUDE.findall((MODULE / "text" / "scan.cpp").read_text())
    assert included == ["text/scan"]
    assert "Python.h" not in (MODULE / "text" / "scan.h").read_text()
