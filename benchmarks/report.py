"""Writes docs/benchmarks.md and its plots from the results of a run, and keeps the page's notes.

Two runs write the page: `make mips-bench` its last table, `make bench` everything above.
"""

from __future__ import annotations

import platform
from collections.abc import Callable, Iterable, Mapping, Sequence
from dataclasses import dataclass
from functools import partial
from importlib import metadata
from pathlib import Path
from typing import Any

from benchmarks import measure, regression, thresholds, workloads
from benchmarks.cli_samples import Variant
from benchmarks.competitors import CYTHON, IMPORT_NAMES, MODULE
from benchmarks.instructions import InstructionCounts
from benchmarks.measure import Memory, Results, Times
from benchmarks.workloads import LOWER_BOUND, NEW_KEYS, WITH_BYTES, Workload
from veldarin_simulator import native_library

PAGE = native_library.ROOT / "docs" / "benchmarks.md"
_PLOTS = PAGE.with_suffix("")
_MIPS = "## Instructions on MIPS\n"
_NOTES = "## Notes\n"

_OPENING = """\
# Benchmarks

`make bench` writes this page from one run; `make bench ARGS=report` writes it from the last run
again. Both keep the last table, which `make mips-bench` writes, and the notes, written by hand.

The module is `{module}`; it is compared with

- **lower bound**: the work that no implementation can avoid. A builtin copies the result from its
  own strings: it makes new dictionaries, new strings and a new list, and shares the keys.
- **Cython** {cython}: the same functions written statement by statement, compiled with Cython's
  defaults and the interpreter's own flags, with the same native services. Its parsers are those of
  the tests' reference model.
- **split** and **regex**: plain Python, with `str.split` and with one compiled pattern per table.
- **TextFSM** {textfsm} and **TTP** {ttp}: templates, compiled once, with at most 1,000 rows.

All but the Cython module read the text with the module's own `get_cli_command_output`. Before
measuring, the runner checks that each competitor returns the module's result, compared by `repr`.
Native replies are fixed: no Python code runs inside a native call. Texts come in two variants:
*repeating*, where ages, interfaces and markers repeat as in a real table, and *distinct*, where no
value repeats.

Times are processor time of the calling thread. Each round runs each competitor once, back and
forth; the figures are medians of the rounds. They include the release of the result. The garbage
collector is off. Measured on {machine}; {toolchain}.
"""

# Color and marker by competitor, in the order of the legend and of the tables' columns.
_STYLES = {
    MODULE: ("#c1272d", "o"),
    LOWER_BOUND: ("#555555", "x"),
    CYTHON: ("#0072b2", "s"),
    "split": ("#009e73", "^"),
    "regex": ("#e69f00", "v"),
    "TextFSM": ("#cc79a7", "D"),
    "TTP": ("#56b4e9", "P"),
}
_COLORS = 64  # of a plot's file
_ALL = list(_STYLES)
_COUNTED = _ALL[:5]


@dataclass(frozen=True)
class Table:
    """One section of the page."""

    title: str
    explanation: str
    headings: Sequence[str]
    rows: Sequence[Sequence[str]]


def write(results: Results) -> None:
    """Write the page and the plots."""
    opening = _OPENING.format(
        module=IMPORT_NAMES[MODULE],
        **{name.lower(): metadata.version(name) for name in ("Cython", "textfsm", "ttp")},
        machine=_processor(),
        toolchain=regression.toolchain(),
    )
    plots = "".join(f"![{file.stem}]({_PLOTS.name}/{file.name})\n" for file in _plot(results))
    page = PAGE.read_text()
    kept = page[page.index(_MIPS) :]
    parts = [opening, *map(_section, tables(results)), f"## Cost by size\n\n{plots}", kept]
    PAGE.write_text("\n".join(parts))


def write_mips(table: Table) -> None:
    """Write the table into the page, in place of the one there."""
    page = PAGE.read_text()
    above, notes = page[: page.index(_MIPS)], page[page.index(_NOTES) :]
    PAGE.write_text(f"{above}{_section(table)}\n{notes}")


def _section(table: Table) -> str:
    rule = ["---", *("--:" for _ in table.headings[1:])]
    rows = (table.headings, rule, *table.rows)
    lines = "\n".join("| " + " | ".join(cells) + " |" for cells in rows)
    return f"## {table.title}\n\n{table.explanation}\n\n{lines}\n"


def _processor() -> str:
    for line in Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.partition(":")[2].strip()
    return platform.machine()


# ------------------------------------------------------------------ tables

# The columns of a table: headings, and functions that format a row's figures by name.
Columns = dict[str, Callable[[Mapping[str, Any]], str]]


def tables(results: Results) -> list[Table]:
    """Return the tables of the page, those of machine-independent figures first."""
    counts, times = results.counts, results.times
    bridges = [*workloads.BRIDGES, *workloads.NO_PARSE_BRIDGES]
    single_calls = [workloads.LISTING, *workloads.OUTPUTS, *workloads.CALLS]
    of_threshold_size = [
        table for table in workloads.TABLES if table.rows == workloads.THRESHOLD_SIZE
    ]
    ratios = {**_ratio(MODULE, LOWER_BOUND), **_ratio(CYTHON, MODULE)}
    return [
        _table(
            "Instructions",
            "Per row of a table, or per call. Callgrind counts n and 5n calls, with the release of "
            "the result; the figure is the difference. The import is one, siblings loaded. The "
            "page of a device is the sum of an ARP table of 30 rows, a routing table of 5 routes, "
            '4 BFD neighbors and a reply of 4 kB. "New keys" is the lower bound that also makes '
            "the keys that come from the text.",
            _all_instructions(counts),
            {
                **_figures([*_COUNTED, NEW_KEYS]),
                **ratios,
                **_ratio(MODULE, NEW_KEYS),
                **_ratio(MODULE, CYTHON),
            },
        ),
        _table(
            "Allocations",
            "New and resized blocks of the interpreter's allocator, per row or per call.",
            counts.allocations,
            _figures(_COUNTED, 3),
        ),
        _table(
            "Memory per returned row",
            "Bytes of the result / peak during the call, including the result, the command's "
            "output and its copies; by tracemalloc.",
            _select(results.memory, of_threshold_size),
            {name: partial(_memory, name) for name in _COUNTED},
        ),
        Table(
            "Thresholds",
            "Processor time, unless the row says otherwise.",
            ["workload", "threshold", "measured", ""],
            [
                [
                    each.subject,
                    str(each),
                    f"{each.figure(results):.3g} {each.unit}",
                    "met" if each.is_met(results) else "not met",
                ]
                for each in thresholds.THRESHOLDS
            ],
        ),
        _table(
            "Tables",
            "Nanoseconds per row: medians. Ratios are medians of the rounds' ratios.",
            _select(times, workloads.TABLES),
            {**_figures(_ALL), **ratios, **_ratio("split", MODULE)},
        ),
        _growth(results),
        _table(
            "Status queries",
            "Microseconds per call. The lower bound makes both JSONObjects, calls the same service "
            "and `json_object_to_json_string`, makes bytes of the text, calls `ujson.loads` and "
            'releases both objects; the columns above it show each module\'s own work. "Bytes" is '
            "the time to make the bytes for `loads`. Differences have their standard error. In "
            "*no-parse* calls json-c copies a ready text and `loads` is an empty builtin, which "
            "makes small differences measurable.",
            _select(times, bridges),
            {
                **_figures(_ALL[:3], 4, unit=1000),
                f"{MODULE} above lower bound": partial(_difference, MODULE, LOWER_BOUND),
                f"{CYTHON} above lower bound": partial(_difference, CYTHON, LOWER_BOUND),
                "bytes": partial(_difference, LOWER_BOUND, WITH_BYTES),
                **_ratio(MODULE, CYTHON, 3),
            },
        ),
        _table(
            "Single calls",
            "Nanoseconds per call, from a loop in C. The lower bound of a trivial call is a "
            "builtin with the same calling convention that calls the same service and converts its "
            "reply; `empty` is one that returns None. `deepcopy` is the `copy.deepcopy` of the "
            "sessions that `list_bfd_neighbor` makes.",
            _select(times, single_calls),
            {
                **_figures([MODULE, LOWER_BOUND, "empty", CYTHON, "deepcopy"], 4),
                **_ratio(MODULE, LOWER_BOUND, 3),
                **_ratio(CYTHON, MODULE),
            },
        ),
        _table(
            "Import and file",
            "The import is processor time in a new process with siblings and packages loaded: the "
            f"median of {measure.IMPORT_ROUNDS}. `{measure.NAMEDTUPLE}` is the creation of the "
            "record type, part of every import. Files are stripped.",
            {"import, ns": results.imports, "file, bytes": results.sizes},
            {**_figures([MODULE, CYTHON, measure.NAMEDTUPLE]), **_ratio(MODULE, CYTHON)},
        ),
    ]


def mips_table(mips: InstructionCounts, workstation: InstructionCounts) -> Table:
    """Return the table of instructions on MIPS, beside those of this machine."""
    machine = platform.machine()
    there = _all_instructions(workstation)
    rows = {
        name: {**row, **{f"{each}, {machine}": count for each, count in there[name].items()}}
        for name, row in _all_instructions(mips).items()
    }
    return _table(
        _MIPS.strip("# \n"),
        "The same calls on 32-bit big-endian MIPS, with the module and the Cython competitor built "
        "for that processor with the same options. The emulator counts the instructions, and in "
        "the same run callgrind those of this machine.",
        rows,
        {
            **_figures([MODULE, LOWER_BOUND, CYTHON]),
            **_ratio(MODULE, CYTHON),
            **_ratio(f"{MODULE}, {machine}", f"{CYTHON}, {machine}"),
            **_ratio(MODULE, f"{MODULE}, {machine}"),
            **_ratio(CYTHON, f"{CYTHON}, {machine}"),
        },
    )


def _all_instructions(counts: InstructionCounts) -> dict[str, dict[str, float]]:
    """Return the instructions of every row of the tables, by competitor."""
    page = {
        name: sum(counts.instructions[each.name][name] * each.rows for each in workloads.PAGE)
        for name in (MODULE, LOWER_BOUND, CYTHON)
    }
    return {**counts.instructions, "import": counts.imports, "page of a device": page}


def _table(
    title: str, explanation: str, rows: Mapping[str, Mapping[str, Any]], columns: Columns
) -> Table:
    cells = [[name, *(format(row) for format in columns.values())] for name, row in rows.items()]
    return Table(title, explanation, ["workload", *columns], cells)


def _select(figures: Mapping[str, Any], chosen: Iterable[Workload]) -> dict[str, Any]:
    return {workload.name: figures[workload.name] for workload in chosen}


def _figures(names: Iterable[str], digits: int = 0, unit: int = 1) -> Columns:
    """Return columns with that many significant digits, or with whole numbers."""

    def format_figure(name: str, row: Mapping[str, Any]) -> str:
        if name not in row:
            return ""
        figure = (row[name].median if isinstance(row[name], Times) else row[name]) / unit
        has_fraction = digits and figure < 10 ** (digits - 1)
        return f"{figure:.{digits}g}" if has_fraction else f"{figure:,.0f}"

    return {name: partial(format_figure, name) for name in names}


def _ratio(dividend: str, divisor: str, digits: int = 2) -> Columns:
    def format_ratio(row: Mapping[str, Any]) -> str:
        if not {dividend, divisor} <= row.keys():
            return ""
        above, below = row[dividend], row[divisor]
        ratio = above.over(below) if isinstance(above, Times) else above / below
        return f"{ratio:.{digits}f}"

    return {f"{dividend} / {divisor}": format_ratio}


def _difference(above: str, below: str, row: Mapping[str, Times]) -> str:
    figure, error = row[above].minus(row[below])
    return f"{figure / 1000:+.2f} ± {error / 1000:.2f}"


def _memory(name: str, row: Mapping[str, Memory]) -> str:
    return f"{row[name].held:,.0f} / {row[name].peak:,.0f}"


def _growth(results: Results) -> Table:
    columns = _ALL[:4]
    size = f"{workloads.THRESHOLD_SIZE:,}"
    return Table(
        "Growth",
        f"Time per row at {workloads.SIZES[-1]:,} rows, divided by that at {size}. The lower bound "
        "grows too: larger results do not fit the caches.",
        ["workload", *columns],
        [
            [
                parser(workloads.THRESHOLD_SIZE, variant).name.replace(f" {size}", ""),
                *(f"{thresholds.growth(results, parser, variant, name):.2f}" for name in columns),
            ]
            for parser in workloads.PARSERS
            for variant in Variant
        ],
    )


# ------------------------------------------------------------------ plots


def _plot(results: Results) -> list[Path]:
    """Write log-log plots of cost by size and return their paths."""
    _PLOTS.mkdir(exist_ok=True)
    files = []
    for parser in workloads.PARSERS:
        title, unit = parser(1, Variant.REPEATING).name.replace("1 ", "").split(", ")[:2]
        panels = {
            f"{title}, {variant.value}": {size: parser(size, variant) for size in workloads.SIZES}
            for variant in Variant
        }
        files.append(_draw(results, panels, unit, _ALL, title.lower()))
    bridges = dict(zip((1_000, 4_000, 100_000, 5_000_000), workloads.BRIDGES[1:]))
    panels = {"status query": bridges}
    return [*files, _draw(results, panels, "bytes of the reply", _ALL[:3], "bridge")]


def _draw(
    results: Results,
    panels: Mapping[str, Mapping[int, Workload]],
    unit: str,
    names: Sequence[str],
    stem: str,
) -> Path:
    """Draw panels of workloads by size and title, with one line per competitor."""
    from matplotlib import pyplot as plt
    from PIL import Image

    plt.rc("font", size=9)
    width = 4.2 * len(panels)
    figure, (axes,) = plt.subplots(
        1, len(panels), figsize=(width, 3.6), sharey=True, squeeze=False, layout="constrained"
    )
    for axis, (title, sized) in zip(axes, panels.items()):
        for name in names:
            _draw_line(axis, results, sized, name)
        axis.set(xscale="log", yscale="log", title=title, xlabel=unit)
        axis.minorticks_off()
        axis.grid(visible=True, linewidth=0.3)
    axes[0].set_ylabel("µs per call, processor time")
    axes[-1].legend(frameon=False)
    file = _PLOTS / f"{stem}.png"
    figure.savefig(file, dpi=120)
    Image.open(file).quantize(_COLORS).save(file, optimize=True)
    return file


def _draw_line(axis: Any, results: Results, sized: Mapping[int, Workload], name: str) -> None:
    points = {
        size: results.times[workload.name][name].median * workload.rows / 1000
        for size, workload in sized.items()
        if name in results.times[workload.name]
    }
    color, marker = _STYLES[name]
    axis.plot(
        *zip(*points.items()), color=color, marker=marker, markersize=4, linewidth=1, label=name
    )
