"""What the module is to reach, as rows: a figure of the run, and its limit."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass

from benchmarks import workloads
from benchmarks.cli_samples import Variant
from benchmarks.competitors import CYTHON, PRODUCT
from benchmarks.measure import Run
from benchmarks.workloads import FLOOR, GOAL_SIZE, READY, Workload


@dataclass(frozen=True)
class Goal:
    """`figure(run)` is to be at most, or at least, `limit` of what `unit` says."""

    what: str
    figure: Callable[[Run], float]
    bound: str
    limit: float
    unit: str

    def reached(self, run: Run) -> bool:
        """Whether the run reaches it."""
        figure = self.figure(run)
        return figure <= self.limit if self.bound == _MOST else figure >= self.limit

    def wanted(self) -> str:
        """The limit in words."""
        return f"{self.bound} {self.limit:g} {self.unit}"


_MOST, _LEAST = "at most", "at least"
_FLOORS = "x floor"
_CYTHONS = "x Cython"
_FASTER = "x faster than"


def _over(workload: Workload, base: str) -> Callable[[Run], float]:
    """The module's time, in times of another's."""
    return lambda run: run.times[workload.name][PRODUCT].over(run.times[workload.name][base])


def _faster(workload: Workload, peer: str) -> Callable[[Run], float]:
    """The other's time, in times of the module's."""
    return lambda run: run.times[workload.name][peer].over(run.times[workload.name][PRODUCT])


def _counted_over(workload: Workload, base: str) -> Callable[[Run], float]:
    def figure(run: Run) -> float:
        row = run.counts.instructions[workload.name]
        return row[PRODUCT] / row[base]

    return figure


def _beyond(workload: Workload, floor: str) -> Callable[[Run], float]:
    """Microseconds a call beyond the floor."""

    def figure(run: Run) -> float:
        times = run.times[workload.name]
        return times[PRODUCT].more_than(times[floor])[0] / 1000

    return figure


def growth(run: Run, parser: workloads.Parser, variant: Variant, contender: str) -> float:
    """Time per row of the largest table, in times of that of the table the goals are set for."""
    large, usual = (
        run.times[parser(size, variant).name][contender].median
        for size in (workloads.SIZES[-1], GOAL_SIZE)
    )
    return large / usual


def _growth_over_floor(parser: workloads.Parser, variant: Variant) -> Callable[[Run], float]:
    # What is returned for repeating BFD sessions does not grow: only the text does.
    base = None if parser is workloads.bfd and variant is Variant.REPEATING else FLOOR

    def figure(run: Run) -> float:
        own = growth(run, parser, variant, PRODUCT)
        return own / growth(run, parser, variant, base) if base else own

    return figure


def _size_over_cython(run: Run) -> float:
    return run.sizes[PRODUCT] / run.sizes[CYTHON]


def _import_over_cython(run: Run) -> float:
    return run.imports[PRODUCT].over(run.imports[CYTHON])


_LIMITS = dict(zip(workloads.PARSERS, (1.15, 1.25, 3.0)))


def _goals_of(parser: workloads.Parser, variant: Variant) -> Iterator[Goal]:
    table = parser(GOAL_SIZE, variant)
    limit = _LIMITS[parser]
    # Repeating BFD sessions end up in a single small one: no floor for the reading of them.
    if not (parser is workloads.bfd and variant is Variant.REPEATING):
        counted = _counted_over(table, FLOOR)
        yield Goal(table.name, _over(table, FLOOR), _MOST, limit, _FLOORS)
        yield Goal(f"{table.name}, instructions", counted, _MOST, limit, _FLOORS)
    faster = {"split": 3, "TextFSM": 40, "TTP": 40}
    if parser is workloads.bfd:
        faster = {CYTHON: 6, **faster}
    for peer, times in faster.items():
        yield Goal(table.name, _faster(table, peer), _LEAST, times, f"{_FASTER} {peer}")
    larger = f"{table.name}, growth to {workloads.SIZES[-1]:,}"
    yield Goal(larger, _growth_over_floor(parser, variant), _MOST, 1.2, "x the floor's growth")


_PARSING = [goal for parser in workloads.PARSERS for v in Variant for goal in _goals_of(parser, v)]
_CALLS = [
    Goal(each.name, _faster(each, CYTHON), _LEAST, 2, f"{_FASTER} {CYTHON}")
    for each in (workloads.LISTING, workloads.OUTPUT)
]
_BRIDGE = [
    *(
        Goal(f"{each.name}, {what}", _beyond(each, floor), _MOST, 0.5, "µs a call")
        for each in workloads.BARE_BRIDGES
        for what, floor in {"the module's own": FLOOR, "with the bytes": READY}.items()
    ),
    # Never slower: 2 % is what two runs of the same differ by.
    *(
        Goal(each.name, _over(each, CYTHON), _MOST, 1.02, _CYTHONS)
        for each in workloads.BRIDGES[1:]
    ),
]
_TRIVIAL = [
    Goal(each.name, _over(each, FLOOR), _MOST, 1.1, "x the bare builtin")
    for each in workloads.TRIVIAL
]
_FILE = [
    Goal("file, stripped", _size_over_cython, _MOST, 0.25, _CYTHONS),
    Goal("file, stripped", lambda run: run.sizes[PRODUCT] / 1024, _MOST, 64, "KiB"),
    Goal("import, siblings loaded", _import_over_cython, _MOST, 0.5, _CYTHONS),
]
GOALS = [*_PARSING, *_CALLS, *_BRIDGE, *_TRIVIAL, *_FILE]
