"""Expected values that are no constants: what a clock or a counter may have become meanwhile."""

from __future__ import annotations

import re
from dataclasses import dataclass
from typing import Any

_UNITS = {"day": 86400, "hour": 3600, "minute": 60, "second": 1}


@dataclass(frozen=True)
class Between:
    """Equal to a text that stands for a whole number from `low` to `high`; what is around the
    number has to be there."""

    low: int
    high: int
    before: str = ""
    after: str = ""

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, str):
            return NotImplemented
        found = re.fullmatch(f"{re.escape(self.before)}([0-9]+){re.escape(self.after)}", other)
        return found is not None and self.low <= int(found[1]) <= self.high

    __hash__ = None  # type: ignore[assignment]


@dataclass(frozen=True)
class Lasting:
    """Equal to a text that tells a time from `low` to `high` seconds: "1 minute(s), 49 second(s)"
    as the BFD daemon writes it, or "00:01:49" as the routing daemon does."""

    low: int
    high: int

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, str):
            return NotImplemented
        told = seconds(other)
        return told is not None and self.low <= told <= self.high

    __hash__ = None  # type: ignore[assignment]


@dataclass(frozen=True)
class OneOf:
    """Equal to each of several values."""

    values: tuple[Any, ...]

    def __eq__(self, other: object) -> bool:
        return other in self.values

    __hash__ = None  # type: ignore[assignment]


def seconds(text: str) -> int | None:
    """The time that a daemon tells, or None for another text."""
    if re.fullmatch(r"\d\d:\d\d:\d\d", text):
        hours, minutes, rest = map(int, text.split(":"))
        return hours * 3600 + minutes * 60 + rest
    if re.fullmatch(r"\d+ (day|hour|minute|second)\(s\)(, \d+ (hour|minute|second)\(s\))*", text):
        parts = re.findall(r"(\d+) (\w+)", text)
        return sum(int(count) * _UNITS[unit] for count, unit in parts)
    return None


def count(value: Any) -> int:
    """How many single values a structure of dictionaries and lists holds."""
    if isinstance(value, dict):
        return sum(count(item) for item in value.values())
    if isinstance(value, (list, tuple)):
        return sum(count(item) for item in value)
    return 1
