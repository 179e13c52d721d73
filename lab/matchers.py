"""Expected values with a range: clocks and counters advance between two samples."""

from __future__ import annotations

import re
from dataclasses import dataclass
from typing import Any, NamedTuple

_UNITS = {"day": 86400, "hour": 3600, "minute": 60, "second": 1}


class Outcome(NamedTuple):
    """The result of the module and what the oracle expects, in the same structure."""

    actual: Any
    expected: Any


@dataclass(frozen=True)
class InRange:
    """Equal to a text with a whole number from `low` to `high`, followed by `suffix`."""

    low: int
    high: int
    suffix: str = ""

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, str):
            return NotImplemented
        try:
            return self.low <= self._parse(other) <= self.high
        except ValueError:
            return False

    __hash__ = None  # type: ignore[assignment]

    def _parse(self, text: str) -> int:
        number = text[: len(text) - len(self.suffix)]
        if number + self.suffix != text or not re.fullmatch("[0-9]+", number):
            raise ValueError(text)
        return int(number)


class Duration(InRange):
    """Equal to a duration of `low` to `high` seconds, as the daemons print it."""

    def _parse(self, text: str) -> int:
        return seconds(text)


@dataclass(frozen=True)
class OneOf:
    """Equal to each of several values."""

    values: tuple[Any, ...]

    def __eq__(self, other: object) -> bool:
        return other in self.values

    __hash__ = None  # type: ignore[assignment]


def seconds(text: str) -> int:
    """Parse "1 minute(s), 49 second(s)" or "00:01:49"; raise ValueError for any other text."""
    if re.fullmatch(r"\d\d:\d\d:\d\d", text):
        hours, minutes, rest = map(int, text.split(":"))
        return hours * 3600 + minutes * 60 + rest
    if re.fullmatch(r"\d+ (day|hour|minute|second)\(s\)(, \d+ (hour|minute|second)\(s\))*", text):
        return sum(int(count) * _UNITS[unit] for count, unit in re.findall(r"(\d+) (\w+)", text))
    raise ValueError(f"not a duration: {text!r}")


def count(value: Any) -> int:
    """Return the number of leaves in a structure of dictionaries and lists."""
    if isinstance(value, dict):
        return sum(map(count, value.values()))
    return sum(map(count, value)) if isinstance(value, (list, tuple)) else 1
