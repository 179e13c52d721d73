"""Measures the module and its competitors.

`run` measures everything and writes docs/benchmarks.md, `report` writes the page from the last run,
`mips` counts instructions on MIPS and writes that table of the page, `baseline` records instruction
and allocation counts as the regression baseline.
"""

from __future__ import annotations

import argparse
import sys
from collections.abc import Iterable
from pathlib import Path
from typing import TYPE_CHECKING

from rich.console import Console
from rich.progress import BarColumn, Progress, TextColumn, TimeElapsedColumn
from rich.table import Table as RichTable

from benchmarks import instructions, regression, workloads
from benchmarks.competitors import CYTHON, MODULE
from veldarin_simulator import native_library

if TYPE_CHECKING:
    from benchmarks.report import Table


def _run(console: Console, *, saved: bool) -> Path:
    # Counting instructions for the baseline does not need the competitors' packages.
    from benchmarks import measure, report

    if saved:
        results = measure.load_results()
    else:
        columns = (TextColumn("{task.description:<48}"), BarColumn(), TimeElapsedColumn())
        with Progress(*columns, console=console, disable=not console.is_terminal) as progress:
            bar = progress.add_task("", total=1.0)
            results = measure.measure(
                lambda step, share: progress.update(bar, description=step, completed=share)
            )
    report.write(results)
    _print(console, report.tables(results))
    return report.PAGE


def _run_on_mips(console: Console) -> Path:
    from benchmarks import report

    mips, workstation = (
        instructions.count(workloads.COUNTED, [MODULE, CYTHON], on_mips=on_mips)
        for on_mips in (True, False)
    )
    table = report.mips_table(mips, workstation)
    report.write_mips(table)
    _print(console, [table])
    return report.PAGE


def _print(console: Console, tables: Iterable[Table]) -> None:
    for table in tables:
        shown = RichTable(title=table.title, title_justify="left", box=None, pad_edge=False)
        for column, heading in enumerate(table.headings):
            shown.add_column(heading, justify="right" if column else "left", overflow="fold")
        for row in table.rows:
            shown.add_row(*row)
        console.print(shown, "")


def main() -> int:
    """Run the command and return the exit status."""
    parser = argparse.ArgumentParser(prog="python -m benchmarks", description=__doc__)
    commands = ["run", "report", "mips", "baseline"]
    parser.add_argument("command", nargs="?", choices=commands, default="run")
    command = parser.parse_args().command
    console = Console()
    if not console.is_terminal:
        console = Console(width=200)  # wide enough for every table
    try:
        if command == "baseline":
            regression.write(regression.measure())
            written = regression.BASELINE
        elif command == "mips":
            written = _run_on_mips(console)
        else:
            written = _run(console, saved=command == "report")
    except (AssertionError, RuntimeError) as error:
        print(error, file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("interrupted; no file was written", file=sys.stderr)
        return 130
    console.print(f"wrote {written.relative_to(native_library.ROOT)}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
