"""Memory per row: blocks that a call asks the interpreter's allocator for, bytes that its result
holds, and the most bytes that were in use meanwhile."""

from __future__ import annotations

import tracemalloc
from dataclasses import dataclass
from typing import Any

from benchmarks.runner import Call

_FEW, _MANY = 1, 5


@dataclass(frozen=True)
class Memory:
    """Per row, or per call. `held`: bytes of the result; `peak`: of all that was in use at once,
    the result included."""

    allocations: float
    held: float
    peak: float


def measure(meter: Any, call: Call, rows: int = 1) -> Memory:
    """What a call takes. The bytes are tracemalloc's: what was asked for, without the allocator's
    own share; json-c's objects are not in them."""
    taken = allocations(meter, call, rows)
    if call.fails:
        return Memory(taken, 0, 0)
    tracemalloc.start()
    try:
        call.result()  # what is kept between calls is there already
        if call.cleared is not None:
            call.cleared.clear()
        before, _ = tracemalloc.get_traced_memory()
        tracemalloc.reset_peak()
        result = call.result()
        after, peak = tracemalloc.get_traced_memory()
        del result
    finally:
        tracemalloc.stop()
    return Memory(taken, (after - before) / rows, (peak - before) / rows)


def allocations(meter: Any, call: Call, rows: int = 1) -> float:
    """Blocks asked for, new or by growing: the difference between a few calls and many, so that
    what comes once is not in it."""
    meter.time(*call.parts(), 2)
    few = meter.allocations(*call.parts(), _FEW)
    many = meter.allocations(*call.parts(), _MANY)
    return float(many - few) / (_MANY - _FEW) / rows
