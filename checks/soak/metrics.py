"""The metrics that must not grow, their samples, and the limits.

The growth of a metric is the difference of its medians in the second and the last quarter of a run;
half of the calls lie between. The first quarter fills caches. The default limit is 0.4 per call of
a case in that time, so that a leak of one object per call in any single case shows.
"""

from __future__ import annotations

import gc
import sys
from array import array
from statistics import median
from typing import NamedTuple

import psutil

from veldarin_simulator import Simulator


class Metric(NamedTuple):
    """A metric, the head of its column, and the limit of its growth if it is not the default."""

    name: str
    short: str
    limit: float | None = None


METRICS = (
    Metric("resident memory, MiB", "MiB", 1.0),
    Metric("allocated blocks", "blocks"),
    Metric("collectable objects", "objects"),
    Metric("references to permanent objects", "references"),
    Metric("json-c objects", "json-c", 0),
    Metric("text buffers", "buffers", 0),
)


class Samples:
    """A sample of every metric after each round.

    The arrays have their final size from the start, because their memory is measured, too.
    """

    def __init__(self, rounds: int) -> None:
        self.calls = array("d", [0.0] * rounds)
        self.values = [array("d", [0.0] * rounds) for _metric in METRICS]

    def take(self, number: int, calls: int, simulator: Simulator, tracked: list[object]) -> None:
        """Collect garbage and take a sample."""
        gc.collect()
        self.calls[number] = calls
        sample = (
            psutil.Process().memory_info().rss / 2**20,
            sys.getallocatedblocks(),
            len(gc.get_objects()),
            sum(map(sys.getrefcount, tracked)),
            *simulator.live_objects,
        )
        for values, value in zip(self.values, sample):
            values[number] = value


class Growth(NamedTuple):
    """The growth of a metric from the second quarter to the last."""

    metric: Metric
    before: float
    after: float
    limit: float

    @property
    def is_flat(self) -> bool:
        """Whether the growth is within the limit."""
        return self.after - self.before <= self.limit

    @property
    def row(self) -> list[str]:
        """The name, both medians, the growth and the limit, as printed."""
        digits = 2 if self.metric.short == "MiB" else 0
        figures = (self.before, self.after, self.after - self.before, self.limit)
        return [self.metric.name, *(f"{figure:,.{digits}f}" for figure in figures)]


def measure_growth(samples: Samples, cases: int) -> list[Growth]:
    """Measure the growth of every metric."""
    quarter = len(samples.calls) // 4
    calls_per_case = samples.calls[-1] / cases / 2
    return [
        Growth(
            metric,
            median(values[quarter : 2 * quarter]),
            median(values[-quarter:]),
            0.4 * calls_per_case if metric.limit is None else metric.limit,
        )
        for metric, values in zip(METRICS, samples.values)
    ]
