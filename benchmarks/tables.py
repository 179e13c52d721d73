"""The run as tables, for the terminal and for the page alike."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass

from benchmarks import imports, thresholds, workloads
from benchmarks.cli_samples import Variant
from benchmarks.competitors import CYTHON, PRODUCT
from benchmarks.measure import Run
from benchmarks.workloads import FLOOR, READY, Workload


@dataclass(frozen=True)
class Table:
    """`explanation`: what a figure is, and how it is come by."""

    title: str
    explanation: str
    head: Sequence[str]
    rows: Sequence[Sequence[str]]


def all_tables(run: Run) -> list[Table]:
    """Machine-independent figures first."""
    return [
        _instructions(run),
        _allocations(run),
        _memory(run),
        _goals(run),
        _times(run),
        _growth(run),
        _bridge(run),
        _calls(run),
        _import_and_file(run),
    ]


def _instructions(run: Run) -> Table:
    peers = [PRODUCT, FLOOR, CYTHON, "split", "regex"]
    rows = []
    for workload in workloads.COUNTED:
        counted = run.counts.instructions[workload.name]
        rows.append(
            [
                workload.name,
                *(_number(counted.get(name)) for name in peers),
                _ratio(counted.get(PRODUCT), counted.get(FLOOR)),
                _ratio(counted.get(CYTHON), counted.get(PRODUCT)),
            ]
        )
    counted = run.counts.imports
    rows.append(
        [
            "import",
            *(_number(counted.get(name)) for name in peers),
            "",
            _ratio(counted[CYTHON], counted[PRODUCT]),
        ]
    )
    return Table(
        "Instructions",
        "Per row of a table, or per call; counted by callgrind as the difference between n and 5n "
        "calls, with the release of the result in it. The import is one, siblings loaded.",
        ["workload", *peers, f"{PRODUCT} / {FLOOR}", f"{CYTHON} / {PRODUCT}"],
        rows,
    )


def _allocations(run: Run) -> Table:
    peers = [PRODUCT, FLOOR, CYTHON, "split", "regex"]
    rows = [
        [
            workload.name,
            *(_number(run.counts.allocations[workload.name].get(name), 3) for name in peers),
        ]
        for workload in workloads.COUNTED
    ]
    return Table(
        "Allocations",
        "Blocks asked for from the interpreter's allocator, new or to grow: per row, or per call.",
        ["workload", *peers],
        rows,
    )


def _memory(run: Run) -> Table:
    peers = [PRODUCT, FLOOR, CYTHON, "split", "regex"]
    rows = []
    for workload in _tables_of_goal_size():
        memory = run.memory[workload.name]
        rows.append(
            [
                workload.name,
                *(f"{memory[name].held:,.0f} / {memory[name].peak:,.0f}" for name in peers),
            ]
        )
    return Table(
        "Memory per returned row",
        "Bytes that the result holds / the most that were in use during the call, the result, the "
        "command's text and its copies included; by tracemalloc.",
        ["workload", *peers],
        rows,
    )


def _goals(run: Run) -> Table:
    rows = [
        [
            goal.what,
            goal.wanted(),
            f"{goal.figure(run):.3g} {goal.unit}",
            "reached" if goal.reached(run) else "not reached",
        ]
        for goal in thresholds.GOALS
    ]
    return Table(
        "Goals",
        "In processor time unless a line says otherwise.",
        ["workload", "goal", "measured", ""],
        rows,
    )


def _times(run: Run) -> Table:
    peers = [PRODUCT, FLOOR, CYTHON, "split", "regex", "TextFSM", "TTP"]
    rows = []
    for workload in workloads.TABLES:
        times = run.times[workload.name]
        rows.append(
            [
                workload.name,
                *(_number(times[name].median) if name in times else "" for name in peers),
                *(
                    f"{times[a].over(times[b]):.2f}"
                    for a, b in ((PRODUCT, FLOOR), (CYTHON, PRODUCT), ("split", PRODUCT))
                ),
            ]
        )
    return Table(
        "Tables",
        "Nanoseconds per row: medians. Ratios are medians of the rounds' ratios.",
        [
            "workload",
            *peers,
            f"{PRODUCT} / {FLOOR}",
            f"{CYTHON} / {PRODUCT}",
            f"split / {PRODUCT}",
        ],
        rows,
    )


def _growth(run: Run) -> Table:
    peers = [PRODUCT, FLOOR, CYTHON, "split"]
    rows = [
        [
            parser(workloads.GOAL_SIZE, variant).name.replace(f" {workloads.GOAL_SIZE:,}", ""),
            *(f"{thresholds.growth(run, parser, variant, name):.2f}" for name in peers),
        ]
        for parser in workloads.PARSERS
        for variant in Variant
    ]
    return Table(
        "Growth",
        f"Time per row at {workloads.SIZES[-1]:,} rows, in times of that at "
        f"{workloads.GOAL_SIZE:,}. The floor grows too: larger results leave the caches.",
        ["workload", *peers],
        rows,
    )


def _bridge(run: Run) -> Table:
    rows = []
    for workload in (*workloads.BRIDGES, *workloads.BARE_BRIDGES):
        times = run.times[workload.name]
        beyond = [times[name].more_than(times[FLOOR]) for name in (PRODUCT, CYTHON)]
        copied = times[FLOOR].more_than(times[READY])
        rows.append(
            [
                workload.name,
                *(_number(times[name].median / 1000, 4) for name in (PRODUCT, FLOOR, CYTHON)),
                *(_difference(*each) for each in (*beyond, copied)),
                f"{times[PRODUCT].over(times[CYTHON]):.3f}",
            ]
        )
    return Table(
        "Status queries",
        "Microseconds a call. The floor is a builtin that makes both JSONObjects, calls the same "
        "service, has json-c write the text, makes bytes of it, calls ujson.loads and both "
        "releases, and nothing else: what is beyond it is the module's own. The bytes are what "
        "`loads` has to be given; their cost is what the floor saves with them ready. Each "
        "difference comes with its standard error. In *bare* exchanges json-c copies a ready text "
        "and `loads` is an empty builtin, so that no difference is lost in the noise of what it is "
        "taken from.",
        [
            "workload",
            PRODUCT,
            FLOOR,
            CYTHON,
            f"{PRODUCT} beyond floor",
            f"{CYTHON} beyond floor",
            "bytes",
            f"{PRODUCT} / {CYTHON}",
        ],
        rows,
    )


def _calls(run: Run) -> Table:
    peers = [PRODUCT, FLOOR, "empty", CYTHON, "deepcopy"]
    rows = []
    for workload in [workloads.LISTING, *workloads.OUTPUTS, *workloads.CALLS]:
        times = run.times[workload.name]
        rows.append(
            [
                workload.name,
                *(_number(times[name].median, 4) if name in times else "" for name in peers),
                f"{times[PRODUCT].over(times[FLOOR]):.3f}" if FLOOR in times else "",
                f"{times[CYTHON].over(times[PRODUCT]):.2f}",
            ]
        )
    return Table(
        "Single calls",
        "Nanoseconds a call, from a loop in C. The floor of a trivial call is a builtin of the "
        "same kind that calls the same service and makes the same object; `empty` is one of the "
        "same kind that returns None. `deepcopy` is the interpreter's `copy.deepcopy` of the "
        "sessions, which the listing calls once.",
        ["workload", *peers, f"{PRODUCT} / {FLOOR}", f"{CYTHON} / {PRODUCT}"],
        rows,
    )


def _import_and_file(run: Run) -> Table:
    product, cython, record = (run.imports[name] for name in (PRODUCT, CYTHON, imports.NAMEDTUPLE))
    return Table(
        "Import and file",
        f"The import is processor time in a fresh process with siblings and packages loaded: the "
        f"median of {imports.ROUNDS}. `{imports.NAMEDTUPLE}` is what the one record type takes, "
        "which every import makes. Files are stripped.",
        ["", PRODUCT, CYTHON, f"{PRODUCT} / {CYTHON}", imports.NAMEDTUPLE],
        [
            [
                "import, µs",
                *(f"{times.median / 1000:,.0f}" for times in (product, cython)),
                f"{product.over(cython):.2f}",
                f"{record.median / 1000:,.0f}",
            ],
            [
                "file, bytes",
                *(f"{run.sizes[name]:,}" for name in (PRODUCT, CYTHON)),
                f"{run.sizes[PRODUCT] / run.sizes[CYTHON]:.2f}",
                "",
            ],
        ],
    )


def _tables_of_goal_size() -> list[Workload]:
    return [table for table in workloads.TABLES if table.rows == workloads.GOAL_SIZE]


def _number(figure: float | None, digits: int = 0) -> str:
    """A figure with that many significant digits, or in whole numbers."""
    if figure is None:
        return ""
    if digits and figure < 10 ** (digits - 1):
        return f"{figure:.{digits}g}"
    return f"{figure:,.0f}"


def _difference(figure: float, error: float) -> str:
    """Nanoseconds in microseconds."""
    return f"{figure / 1000:+.2f} ± {error / 1000:.2f}"


def _ratio(figure: float | None, base: float | None) -> str:
    return f"{figure / base:.2f}" if figure and base else ""
