"""What is counted while the calls go on, and the rule by which it is flat.

Of each count the median of the second quarter of the run is taken, and that of the last: half of
the calls lie between. The first quarter is left out, in which caches fill. Flat is what has grown
by no more than its limit. That for blocks, objects and references is two fifths of the calls that a
single case gets in that time: what any one case leaves behind at each call is seen.
"""

from __future__ import annotations

import gc
import resource
import sys
from array import array
from pathlib import Path
from statistics import median
from typing import NamedTuple

from veldarin_simulator import Simulator


class Count(NamedTuple):
    """A count: its name, the head of its column, and by how much it may have grown; `None`: by the
    rule."""

    name: str
    short: str
    limit: float | None = None


COUNTS = (
    Count("resident memory, MiB", "MiB", 1.0),
    Count("allocated blocks", "blocks"),
    Count("objects of the collector", "objects"),
    Count("references to living objects", "references"),
    Count("json-c objects", "json-c", 0),
    Count("text buffers", "buffers", 0),
)


class Record:
    """The counts after each round. It is as large from the beginning as at the end, since it is
    among what is counted."""

    def __init__(self, rounds: int) -> None:
        self.calls = array("d", [0.0] * rounds)
        self.counts = [array("d", [0.0] * rounds) for _count in COUNTS]

    def take(self, number: int, calls: int, simulator: Simulator, watched: list[object]) -> None:
        """The counts of now, without what only waits to be collected."""
        gc.collect()
        resident = int(Path("/proc/self/statm").read_text().split()[1]) * resource.getpagesize()
        alive = simulator.live_objects
        self.calls[number] = calls
        counts = (
            resident / 2**20,
            sys.getallocatedblocks(),
            len(gc.get_objects()),
            sum(map(sys.getrefcount, watched)),
            alive.json_objects,
            alive.text_buffers,
        )
        for values, count in zip(self.counts, counts):
            values[number] = count


class Growth(NamedTuple):
    """What became of a count from the second quarter to the last."""

    of: Count
    before: float
    after: float
    limit: float

    @property
    def flat(self) -> bool:
        """It has grown by no more than its limit."""
        return self.after - self.before <= self.limit


def growths(record: Record, cases: int) -> list[Growth]:
    """Every count by the rule."""
    quarter = len(record.calls) // 4
    calls_of_a_case = record.calls[-1] / cases / 2
    found = []
    for count, values in zip(COUNTS, record.counts):
        before, after = median(values[quarter : 2 * quarter]), median(values[-quarter:])
        limit = 0.4 * calls_of_a_case if count.limit is None else count.limit
        found.append(Growth(count, before, after, limit))
    return found
