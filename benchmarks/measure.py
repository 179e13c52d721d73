"""Measures times, memory, imports and file sizes, and counts instructions.

Each round of a timing runs every competitor once, back and forth, so that a slow moment of the
machine affects all of them; the figures are medians of many short rounds.
`python -m benchmarks.measure NAME` is the process that imports once and prints the nanoseconds.
"""

from __future__ import annotations

import gc
import pickle
import subprocess
import sys
import time
import tracemalloc
from collections import namedtuple
from collections.abc import Callable, Iterable, Mapping
from dataclasses import dataclass, field
from importlib import import_module
from statistics import median

from benchmarks import competitors, instructions, workloads
from benchmarks.competitors import CYTHON, EXTENSIONS, IMPORT_NAMES, MODULE
from benchmarks.instructions import InstructionCounts
from benchmarks.runner import Call, Runner
from benchmarks.workloads import LOWER_BOUND
from veldarin_simulator import Simulator, native_library

RESULTS = EXTENSIONS / "results.pickle"
# The template competitors would take minutes under callgrind.
COUNTED = (MODULE, CYTHON, "split", "regex")
IMPORT_ROUNDS = 15
NAMEDTUPLE = "namedtuple"  # the record type that every import of the module creates

# Nanoseconds that a competitor runs in a round, unless a call takes longer. Long samples warm the
# caches; short ones give the many rounds that small differences need.
_LONG, _SHORT = 10_000_000, 500_000
_BUDGET = 3_000_000_000  # nanoseconds for a workload
_ROUNDS = (5, 1_000)  # minimum and maximum


@dataclass(frozen=True)
class Times:
    """Nanoseconds per row, or per call, of one competitor in every round."""

    rounds: tuple[float, ...]

    @property
    def median(self) -> float:
        """The median of the rounds."""
        return median(self.rounds)

    def over(self, other: Times) -> float:
        """Return the median of the rounds' ratios."""
        return median(a / b for a, b in zip(self.rounds, other.rounds))

    def minus(self, other: Times) -> tuple[float, float]:
        """Return the median of the rounds' differences and its standard error."""
        differences = [a - b for a, b in zip(self.rounds, other.rounds)]
        center = median(differences)
        deviation = 1.4826 * median(abs(each - center) for each in differences)
        return center, 1.2533 * deviation / len(differences) ** 0.5


@dataclass(frozen=True)
class Memory:
    """Bytes per row: those of the result, and the peak during the call, including the result."""

    held: float
    peak: float


@dataclass
class Results:
    """All figures; `times` and `memory` by workload and competitor."""

    counts: InstructionCounts
    imports: dict[str, Times]
    sizes: dict[str, int]
    times: dict[str, dict[str, Times]] = field(default_factory=dict)
    memory: dict[str, dict[str, Memory]] = field(default_factory=dict)


def measure(report_progress: Callable[[str, float], None]) -> Results:
    """Measure everything and save the results, for reports to come.

    Args:
        report_progress: Called with the current step and the completed share.

    Raises:
        RuntimeError: Something is not built or installed.
        AssertionError: A competitor does not return what the module returns.
    """
    report_progress("counting instructions", 0)
    counts = instructions.count(workloads.COUNTED, COUNTED)
    report_progress("imports in new processes", 0.3)
    results = Results(counts, _measure_imports(), _file_sizes())
    with Simulator(live=False, track_buffers=False) as simulator:
        runner = Runner(simulator)
        gc.disable()
        try:
            for done, workload in enumerate(workloads.TIMED):
                report_progress(workload.name, 0.4 + 0.6 * done / len(workloads.TIMED))
                calls = runner.calls(workload)
                sample = _SHORT if workload in workloads.BRIDGES else _LONG
                results.times[workload.name] = _time(calls, workload.rows, sample)
                if workload in workloads.COUNTED and not workload.raises:
                    results.memory[workload.name] = {
                        name: _measure_memory(calls[name], workload.rows)
                        for name in (*COUNTED, LOWER_BOUND)
                        if name in calls
                    }
                gc.collect()
        finally:
            gc.enable()
    RESULTS.write_bytes(pickle.dumps(results))
    report_progress("done", 1)
    return results


def load_results() -> Results:
    """Return the saved results of the last run.

    Raises:
        RuntimeError: There are none.
    """
    if not RESULTS.is_file():
        raise RuntimeError(f"{RESULTS} does not exist: run `make bench`")
    results: Results = pickle.loads(RESULTS.read_bytes())
    return results


def _time(calls: Mapping[str, Call], rows: int, sample: int) -> dict[str, Times]:
    repeats = {name: _repeats(call, sample) for name, call in calls.items()}
    one_round = sum(call.time(repeats[name]) for name, call in calls.items())
    least, most = _ROUNDS
    return _interleave(
        calls,
        lambda name: calls[name].time(repeats[name]) / repeats[name] / rows,
        max(least, min(most, _BUDGET // one_round)),
    )


def _repeats(call: Call, sample: int) -> int:
    """Return how many calls take about `sample` nanoseconds."""
    times = 1
    while (taken := call.time(times)) < sample // 4:
        times *= 4
    return max(1, times * sample // taken)


def _interleave(
    names: Iterable[str], measure_one: Callable[[str], float], rounds: int
) -> dict[str, Times]:
    order = list(names)
    samples: dict[str, list[float]] = {name: [] for name in order}
    for _ in range(rounds):
        for name in order:
            samples[name].append(measure_one(name))
        order.reverse()
    return {name: Times(tuple(figures)) for name, figures in samples.items()}


def _measure_memory(call: Call, rows: int) -> Memory:
    """Measure with tracemalloc: requested bytes, without the allocator's overhead and json-c."""
    tracemalloc.start()
    try:
        call.result()  # fills the caches that outlive a call
        if call.cleared is not None:
            call.cleared.clear()
        before, _ = tracemalloc.get_traced_memory()
        tracemalloc.reset_peak()
        result = call.result()
        after, peak = tracemalloc.get_traced_memory()
        del result
    finally:
        tracemalloc.stop()
    return Memory((after - before) / rows, (peak - before) / rows)


def _measure_imports() -> dict[str, Times]:
    def import_once(name: str) -> int:
        command = [sys.executable, "-m", "benchmarks.measure", name]
        done = subprocess.run(
            command, cwd=native_library.ROOT, capture_output=True, text=True, check=True
        )
        return int(done.stdout)

    return _interleave((MODULE, CYTHON, NAMEDTUPLE), import_once, IMPORT_ROUNDS)


def _file_sizes() -> dict[str, int]:
    """Return the bytes of the stripped files."""
    folders = {
        MODULE: native_library.build_directory() / "stage" / "veldarin" / "modules",
        CYTHON: EXTENSIONS,
    }
    stems = {name: IMPORT_NAMES[name].rpartition(".")[2] for name in folders}
    return {
        name: next(folder.glob(f"{stems[name]}.*.so")).stat().st_size
        for name, folder in folders.items()
    }


def _time_import(name: str) -> int:
    native_library.load()
    competitors.load_extension("bench_repeat")  # makes the Cython competitor importable
    competitors.load_siblings()
    begin = time.thread_time_ns()
    if name == NAMEDTUPLE:
        namedtuple(
            "Counters",
            "bytes_sent bytes_recv packets_sent packets_recv errin errout dropin dropout",
        )
    else:
        import_module(IMPORT_NAMES[name])
    return time.thread_time_ns() - begin


if __name__ == "__main__":
    print(_time_import(sys.argv[1]))
