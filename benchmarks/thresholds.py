"""The performance thresholds: each is a figure of the results with its limit."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass

from benchmarks import workloads
from benchmarks.cli_samples import Variant
from benchmarks.competitors import CYTHON, MODULE
from benchmarks.measure import Results, Times
from benchmarks.workloads import LOWER_BOUND, NEW_KEYS, THRESHOLD_SIZE, WITH_BYTES, Workload

_AT_MOST, _AT_LEAST = "at most", "at least"


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


def _at_least(workload: Workload, limit: float, name: str) -> Threshold:
    """The module must be so many times faster than the named competitor."""
    return Threshold(
        workload.name,
        lambda results: _times(results, workload, name).over(_times(results, workload, MODULE)),
        _AT_LEAST,
        limit,
        f"x faster than {name}",
    )


def _at_most(workload: Workload, limit: float, name: str) -> Threshold:
    """The module may take so many times the named competitor's time."""
    return Threshold(
        workload.name,
        lambda results: _times(results, workload, MODULE).over(_times(results, workload, name)),
        _AT_MOST,
        limit,
        f"x {name}",
    )


def _times(results: Results, workload: Workload, name: str) -> Times:
    return results.times[workload.name][name]


def _microseconds_above(workload: Workload, limit: float, bound: str) -> Threshold:
    return Threshold(
        f"{workload.name}, above the {bound}",
        lambda results: (
            _times(results, workload, MODULE).minus(_times(results, workload, bound))[0] / 1000
        ),
        _AT_MOST,
        limit,
        "µs",
    )


_LIMITS = dict(zip(workloads.PARSERS, (1.15, 1.25, 3.0)))
_SMALL_LIMITS = dict(zip(workloads.PARSERS, (1.25, 1.4, 2.5)))


def _instruction_ratio(workload: Workload, limit: float, name: str) -> Threshold:
    def ratio(results: Results) -> float:
        row = results.counts.instructions[workload.name]
        return row[MODULE] / row[name]

    return Threshold(f"{workload.name}, instructions", ratio, _AT_MOST, limit, f"x {name}")


def _import_instructions(results: Results) -> float:
    return results.counts.imports[MODULE] / results.counts.imports[CYTHON]


def _table_thresholds(parser: workloads.Parser, variant: Variant) -> Iterator[Threshold]:
    table = parser(THRESHOLD_SIZE, variant)
    # Repeating BFD sessions have a small result of constant size: the lower bound does not include
    # reading, and does not grow.
    is_bounded = not (parser is workloads.bfd and variant is Variant.REPEATING)
    if is_bounded:
        yield _at_most(table, _LIMITS[parser], LOWER_BOUND)
        yield _instruction_ratio(table, _LIMITS[parser], LOWER_BOUND)
        bound = NEW_KEYS if parser is workloads.bfd else LOWER_BOUND
        yield _instruction_ratio(parser(10, variant), _SMALL_LIMITS[parser], bound)
    if parser is workloads.bfd:
        yield _at_least(table, 6, CYTHON)
    for name, limit in {"split": 3, "TextFSM": 40, "TTP": 40}.items():
        yield _at_least(table, limit, name)
    yield Threshold(
        f"{table.name}, growth to {workloads.SIZES[-1]:,}",
        lambda results: (
            growth(results, parser, variant, MODULE)
            / (growth(results, parser, variant, LOWER_BOUND) if is_bounded else 1)
        ),
        _AT_MOST,
        1.2,
        "x the lower bound's growth",
    )


def _file_ratio(results: Results) -> float:
    return results.sizes[MODULE] / results.sizes[CYTHON]


def _import_ratio(results: Results) -> float:
    return results.imports[MODULE].over(results.imports[CYTHON])


THRESHOLDS = [
    *(row for parser in workloads.PARSERS for v in Variant for row in _table_thresholds(parser, v)),
    *(_at_least(each, 2, CYTHON) for each in (workloads.LISTING, workloads.OUTPUT)),
    *(
        _microseconds_above(each, 0.5, bound)
        for each in workloads.NO_PARSE_BRIDGES
        for bound in (LOWER_BOUND, WITH_BYTES)
    ),
    # Not slower: two runs of the same code differ by up to 2 %.
    *(_at_most(each, 1.02, CYTHON) for each in workloads.BRIDGES[1:]),
    *(_at_most(each, 1.1, LOWER_BOUND) for each in workloads.TRIVIAL),
    Threshold("file, stripped", _file_ratio, _AT_MOST, 0.25, f"x {CYTHON}"),
    Threshold("file, stripped", lambda results: results.sizes[MODULE] / 1024, _AT_MOST, 64, "KiB"),
    *(
        _instruction_ratio(each, 1.0, CYTHON)
        for each in (
            *workloads.BINDING,
            *workloads.ERRORS,
            *workloads.QUERIES[:3],
            workloads.BRIDGES[0],
        )
    ),
    _instruction_ratio(workloads.LAST_INTERFACE, 0.9, CYTHON),
    _instruction_ratio(workloads.OUTPUTS[1], 0.4, CYTHON),
    Threshold("import, instructions", _import_instructions, _AT_MOST, 0.9, f"x {CYTHON}"),
    Threshold("import, siblings loaded", _import_ratio, _AT_MOST, 0.5, f"x {CYTHON}"),
]
