"""Processor time, interleaved: in every round each contender runs once, back and forth, so that a
slow moment of the machine meets all of them. Many short rounds, and the middle one counts."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass
from statistics import median
from typing import Any

from benchmarks.runner import Call

# Nanoseconds that one contender runs in a round, if a call is no longer. Long ones leave everybody
# with warm caches; short ones are many, which small differences need.
LONG, SHORT = 10_000_000, 500_000
_BUDGET = 3_000_000_000  # nanoseconds for a workload
_ROUNDS = (5, 1_000)  # at least and at most


@dataclass(frozen=True)
class Times:
    """One contender at one workload: nanoseconds per row, or per call, of every round."""

    rounds: tuple[float, ...]

    @property
    def median(self) -> float:
        """The middle one."""
        return median(self.rounds)

    def over(self, other: Times) -> float:
        """How often the other's time this is: the median of the rounds' ratios."""
        return median(a / b for a, b in zip(self.rounds, other.rounds))

    def more_than(self, other: Times) -> tuple[float, float]:
        """By how much this is longer: the median of the rounds' differences, and its standard
        error."""
        differences = [a - b for a, b in zip(self.rounds, other.rounds)]
        middle = median(differences)
        deviation = 1.4826 * median(abs(each - middle) for each in differences)
        return middle, 1.2533 * deviation / len(differences) ** 0.5


def measure(
    meter: Any, calls: Mapping[str, Call], rows: int = 1, sample: int = LONG
) -> dict[str, Times]:
    """The times of the calls, each contender's by name."""
    times = {name: _times(meter, call, sample) for name, call in calls.items()}
    once = sum(_time(meter, call, times[name]) for name, call in calls.items())
    least, most = _ROUNDS
    samples: dict[str, list[float]] = {name: [] for name in calls}
    order = list(calls)
    for _ in range(max(least, min(most, _BUDGET // once))):
        for name in order:
            taken = _time(meter, calls[name], times[name])
            samples[name].append(taken / times[name] / rows)
        order.reverse()
    return {name: Times(tuple(taken)) for name, taken in samples.items()}


def _times(meter: Any, call: Call, sample: int) -> int:
    """How many calls make up a sample."""
    times = 1
    while (taken := _time(meter, call, times)) < sample // 4:
        times *= 4
    return max(1, times * sample // taken)


def _time(meter: Any, call: Call, times: int) -> int:
    return int(meter.time(*call.parts(), times))
