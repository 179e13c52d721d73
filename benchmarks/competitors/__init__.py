"""The module and its competitors: each is a module with functions of the same names."""

from __future__ import annotations

import sys
from collections.abc import Sequence
from importlib import import_module
from typing import Any

from veldarin_simulator import Simulator, native_library

MODULE = "module"
CYTHON = "Cython"
IMPORT_NAMES = {
    MODULE: "veldarin.modules.modules_util",
    CYTHON: "modules_cython",
    "split": "benchmarks.competitors.split",
    "regex": "benchmarks.competitors.regex",
    "TextFSM": "benchmarks.competitors.textfsm_parser",
    "TTP": "benchmarks.competitors.ttp_parser",
}
NAMES = list(IMPORT_NAMES)

EXTENSIONS = native_library.build_directory() / "benchmarks"

# The imports of the module and of the Cython competitor.
_SIBLINGS = """
    veldarin.modules.modules migbase.migbase migbase.cmdbapi.cmdbapi_util util.json util.string
    util.errors binascii collections logging os pathlib pyramid.compat threading ujson copy
""".split()


def load_extension(name: str) -> Any:
    """Import a compiled module of the benchmarks, and make the others importable by name.

    Raises:
        RuntimeError: It is not built.
    """
    if str(EXTENSIONS) not in sys.path:
        sys.path.insert(0, str(EXTENSIONS))
    try:
        return import_module(name)
    except ModuleNotFoundError as error:
        raise RuntimeError(f"{name} is not built in {EXTENSIONS}: run `make bench`") from error


def load_siblings() -> None:
    """Import what the module imports, so that a later import of it counts the module alone."""
    for name in _SIBLINGS:
        import_module(name)


def load(simulator: Simulator, names: Sequence[str] = NAMES) -> dict[str, Any]:
    """Return the named competitors' modules by name, the module itself first."""
    modules: dict[str, Any] = {MODULE: simulator.module}
    if CYTHON in names:
        modules[CYTHON] = load_extension(IMPORT_NAMES[CYTHON])
    for name in names:
        if name not in modules:
            modules[name] = import_module(IMPORT_NAMES[name])
    return modules
