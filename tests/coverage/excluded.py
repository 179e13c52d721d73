"""Branches and lines that nothing can run, each with the reason: reviewed, and printed with every
report. A row that leaves nothing out, or whose line is no more, is an error.
"""

from __future__ import annotations

from typing import NamedTuple


class Excluded(NamedTuple):
    """In each instance of the lines that hold `text`, this many branches are never taken, or the
    line itself never runs."""

    file: str
    text: str
    reason: str
    branches: int = 0
    line: bool = False


EXCLUDED: list[Excluded] = []
