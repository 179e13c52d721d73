"""Who does the job: the product and its peers, each a module with functions of the same names."""

from __future__ import annotations

from collections.abc import Sequence
from importlib import import_module
from typing import Any

from benchmarks import load
from veldarin_simulator import Simulator, simulator

PRODUCT = "product"
CYTHON = "Cython"

IMPORT_NAMES = {
    PRODUCT: simulator.MODULE,
    CYTHON: "modules_cython",
    "split": "benchmarks.competitors.split",
    "regex": "benchmarks.competitors.regex",
    "TextFSM": "benchmarks.competitors.textfsm_parser",
    "TTP": "benchmarks.competitors.ttp_parser",
}
NAMES = list(IMPORT_NAMES)

# What the product imports, and the compiled peer with it.
_SIBLINGS = """
    veldarin.modules.modules migbase.migbase migbase.cmdbapi.cmdbapi_util util.json util.string
    util.errors binascii collections logging os pathlib pyramid.compat threading ujson copy
""".split()


def load_siblings() -> None:
    """Imports what the product imports, so that an import that follows is the product's own."""
    for name in _SIBLINGS:
        import_module(name)


def contenders(appliance: Simulator, names: Sequence[str] = NAMES) -> dict[str, Any]:
    """The modules of the contenders asked for, the product first."""
    modules: dict[str, Any] = {PRODUCT: appliance.module}
    if CYTHON in names:
        modules[CYTHON] = load.load(IMPORT_NAMES[CYTHON])
    for name in names:
        if name not in modules:
            modules[name] = import_module(IMPORT_NAMES[name])
    return modules
