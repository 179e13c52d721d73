"""A row of the table of checks."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any, NamedTuple

from lab.network import Node


class Compared(NamedTuple):
    """What the module said and what the oracle expects, of equal form."""

    said: Any
    expected: Any


class Check(NamedTuple):
    """What a function of the module makes of a node, and the oracle that it is held against."""

    name: str
    function: str
    oracle: str
    compare: Callable[[Node], Compared]
