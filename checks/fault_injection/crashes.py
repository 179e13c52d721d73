"""Processes that died, put in order by the functions that they died in.

Whatever dies is wrong. Where it died says whose fault to look for: in the module's own code; in the
interpreter, called by the module; or with the module nowhere on the stack.
"""

from __future__ import annotations

import re
from pathlib import Path
from typing import NamedTuple

from tests.support.isolated import MODULE_PATH

TOLD = re.compile(r"died in the call: (.*)\ndied in the functions:\n(.*?)died\.\n", re.DOTALL)
FRAME = re.compile(r"^(?P<file>[^()]*)\((?P<function>[^+()]*)[^()]*\)", re.MULTILINE)
# They raise the signal, or stand between: not where it happens.
BETWEEN = ("libc.so", "libc-", "libpthread", "libfaults", "linux-vdso", "libasan", "_ctypes")
SHOWN = 6  # functions


class Death(NamedTuple):
    """How a process ended, where, and in which of the module's fallible calls."""

    how: str
    place: str
    call: str
    functions: tuple[str, ...]

    def __str__(self) -> str:
        call = "" if self.call == "none" else f", in the call {self.call}"
        return f"{self.how} {self.place}{call}: {' < '.join(self.functions) or 'no stack'}"


def death(how: str, written: str) -> Death:
    """A death, from the way it ended and what was written before."""
    told = TOLD.search(written)
    if told is None:
        return Death(how, "and did not say where", "none", ())
    frames = [
        (Path(found["file"]).name, found["function"])
        for found in FRAME.finditer(told[2])
        if not any(name in Path(found["file"]).name for name in BETWEEN)
    ]
    names = [function or f"a function of {file}" for file, function in frames]
    return Death(how, _place([file for file, _function in frames]), told[1], tuple(names[:SHOWN]))


def _place(files: list[str]) -> str:
    if MODULE_PATH.name not in files:
        return "outside of the module"
    return (
        "in the module" if files[0] == MODULE_PATH.name else f"in {files[0]}, called by the module"
    )
