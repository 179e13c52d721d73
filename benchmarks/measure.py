"""One run of everything, step by step."""

from __future__ import annotations

import gc
from collections.abc import Callable
from dataclasses import dataclass, field

from benchmarks import imports, instructions, load, memory, timing, workloads
from benchmarks.competitors import CYTHON, PRODUCT
from benchmarks.instructions import Counts
from benchmarks.memory import Memory
from benchmarks.runner import Bench
from benchmarks.timing import Times
from veldarin_simulator import Simulator

# How far a run is: what is at hand, and which share of the whole is done.
Progress = Callable[[str, float], None]

# Whose instructions are counted, and whose memory is measured: templates take minutes to count.
_COUNTED = (PRODUCT, CYTHON, "split", "regex")
_MEASURED = (*_COUNTED, workloads.FLOOR)


@dataclass
class Run:
    """The figures. Of workloads by name, and in them of contenders and floors by name."""

    counts: Counts
    imports: dict[str, Times]
    sizes: dict[str, int]
    times: dict[str, dict[str, Times]] = field(default_factory=dict)
    memory: dict[str, dict[str, Memory]] = field(default_factory=dict)


def measure(progress: Progress) -> Run:
    """Measures everything. `RuntimeError`: something is not built or installed; `AssertionError`: a
    contender does not return what the module returns."""
    progress("counting instructions", 0)
    counts = instructions.count(workloads.COUNTED, _COUNTED)
    progress("imports in fresh processes", 0.3)
    run = Run(counts, imports.measure(), imports.sizes())
    with Simulator(live=False, track_buffers=False) as simulator:
        bench = Bench(simulator)
        meter = load.load("bench_repeat")
        gc.disable()
        try:
            for done, workload in enumerate(workloads.TIMED):
                progress(workload.name, 0.4 + 0.6 * done / len(workloads.TIMED))
                _measure(run, meter, bench, workload)
                gc.collect()
        finally:
            gc.enable()
    progress("done", 1)
    return run


def _measure(run: Run, meter: object, bench: Bench, workload: workloads.Workload) -> None:
    calls = bench.calls(workload)
    sample = timing.SHORT if workload in workloads.BRIDGES else timing.LONG
    run.times[workload.name] = timing.measure(meter, calls, workload.rows, sample)
    if workload in workloads.COUNTED:
        run.memory[workload.name] = {
            name: memory.measure(meter, calls[name], workload.rows)
            for name in _MEASURED
            if name in calls
        }
