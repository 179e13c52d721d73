"""The performance thresholds: each is a figure of the results with its limit."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass

from benchmarks import workloads
from benchmarks.cli_samples import Variant
from benchmarks.competitors import CYTHON, MODULE
from benchmarks.measure import Results
from benchmarks.workloads import LOWER_BOUND, THRESHOLD_SIZE, WITH_BYTES, Workload

_AT_MOST, _AT_LEAST = "at most", "at least"
_TIMES_CYTHON = "x Cython"
_TIMES_FASTER = "x faster than"
_TIMES_LOWER_BOUND = "x lower bound"


@dataclass(frozen=True)
class Threshold:
    """The limit of a figure, in a unit."""

    subject: str
    figure: Callable[[Results], float]
    bound: str
    limit: float
    unit: str

    def is_met(self, results: Results) -> bool:
        """Whether the results are within the limit."""
        figure = self.figure(results)
        return figure <= self.limit if self.bound == _AT_MOST else figure >= self.limit

    def __str__(self) -> str:
        return f"{self.bound} {self.limit:g} {self.unit}"


def growth(results: Results, parser: workloads.Parser, variant: Variant, name: str) -> float:
    """Return the time per row of the largest table, divided by that at the thresholds' size."""
    large, usual = (
        results.times[parser(size, variant).name][name].median
        for size in (workloads.SIZES[-1], THRESHOLD_SIZE)
    )
    return large / usual


def _time_ratio(workload: Workload, above: str, below: str) -> Callable[[Results], float]:
    return lambda results: results.times[workload.name][above].over(
        results.times[workload.name][below]
    )


def _instruction_ratio(workload: Workload) -> Callable[[Results], float]:
    def figure(results: Results) -> float:
        row = results.counts.instructions[workload.name]
        return row[MODULE] / row[LOWER_BOUND]

    return figure


def _microseconds_above(workload: Workload, lower_bound: str) -> Callable[[Results], float]:
    def figure(results: Results) -> float:
        times = results.times[workload.name]
        return times[MODULE].minus(times[lower_bound])[0] / 1000

    return figure


def _growth_ratio(parser: workloads.Parser, variant: Variant) -> Callable[[Results], float]:
    # The result of repeating BFD sessions has a constant size: its lower bound does not grow.
    constant = parser is workloads.bfd and variant is Variant.REPEATING
    return lambda results: (
        growth(results, parser, variant, MODULE)
        / (1 if constant else growth(results, parser, variant, LOWER_BOUND))
    )


_LIMITS = dict(zip(workloads.PARSERS, (1.15, 1.25, 3.0)))


def _table_thresholds(parser: workloads.Parser, variant: Variant) -> Iterator[Threshold]:
    table = parser(THRESHOLD_SIZE, variant)
    limit = (_AT_MOST, _LIMITS[parser], _TIMES_LOWER_BOUND)
    # The lower bound does not include reading, nearly all the work for repeating BFD sessions.
    if not (parser is workloads.bfd and variant is Variant.REPEATING):
        yield Threshold(table.name, _time_ratio(table, MODULE, LOWER_BOUND), *limit)
        yield Threshold(f"{table.name}, instructions", _instruction_ratio(table), *limit)
    faster = {"split": 3, "TextFSM": 40, "TTP": 40}
    if parser is workloads.bfd:
        faster = {CYTHON: 6, **faster}
    for name, times in faster.items():
        figure = _time_ratio(table, name, MODULE)
        yield Threshold(table.name, figure, _AT_LEAST, times, f"{_TIMES_FASTER} {name}")
    yield Threshold(
        f"{table.name}, growth to {workloads.SIZES[-1]:,}",
        _growth_ratio(parser, variant),
        _AT_MOST,
        1.2,
        "x the lower bound's growth",
    )


THRESHOLDS = [
    *(
        threshold
        for parser in workloads.PARSERS
        for variant in Variant
        for threshold in _table_thresholds(parser, variant)
    ),
    *(
        Threshold(
            each.name, _time_ratio(each, CYTHON, MODULE), _AT_LEAST, 2, f"{_TIMES_FASTER} {CYTHON}"
        )
        for each in (workloads.LISTING, workloads.OUTPUT)
    ),
    *(
        Threshold(
            f"{each.name}, above the {bound}", _microseconds_above(each, bound), _AT_MOST, 0.5, "µs"
        )
        for each in workloads.NO_PARSE_BRIDGES
        for bound in (LOWER_BOUND, WITH_BYTES)
    ),
    # Not slower: two runs of the same code differ by up to 2 %.
    *(
        Threshold(each.name, _time_ratio(each, MODULE, CYTHON), _AT_MOST, 1.02, _TIMES_CYTHON)
        for each in workloads.BRIDGES[1:]
    ),
    *(
        Threshold(
            each.name, _time_ratio(each, MODULE, LOWER_BOUND), _AT_MOST, 1.1, _TIMES_LOWER_BOUND
        )
        for each in workloads.TRIVIAL
    ),
    Threshold(
        "file, stripped",
        lambda results: results.sizes[MODULE] / results.sizes[CYTHON],
        _AT_MOST,
        0.25,
        _TIMES_CYTHON,
    ),
    Threshold("file, stripped", lambda results: results.sizes[MODULE] / 1024, _AT_MOST, 64, "KiB"),
    Threshold(
        "import, siblings loaded",
        lambda results: results.imports[MODULE].over(results.imports[CYTHON]),
        _AT_MOST,
        0.5,
        _TIMES_CYTHON,
    ),
]
