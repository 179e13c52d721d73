"""What the build has made for the benchmarks, imported from the build in use."""

from __future__ import annotations

import sys
from importlib import import_module
from typing import Any

from veldarin_simulator import native_library

FOLDER = native_library.build_directory() / "benchmarks"


def load(name: str) -> Any:
    """A compiled module of the benchmarks. `RuntimeError`: it is not built.

    It can be imported by its name from then on, and those beside it.
    """
    if str(FOLDER) not in sys.path:
        sys.path.insert(0, str(FOLDER))
    try:
        return import_module(name)
    except ModuleNotFoundError as error:
        raise RuntimeError(f"{name} is not built in {FOLDER}: run `make bench`") from error
