"""The benchmarks' face: `run` measures everything and writes docs/benchmarks.md, `baseline` makes
what is counted now the figures that the tests compare."""

from __future__ import annotations

import argparse
import sys

from rich.console import Console
from rich.progress import BarColumn, Progress, TextColumn, TimeElapsedColumn
from rich.table import Table as RichTable

from benchmarks import regression
from benchmarks.tables import Table, all_tables
from veldarin_simulator import native_library


def _show(console: Console, table: Table) -> None:
    shown = RichTable(title=table.title, title_justify="left", box=None, pad_edge=False)
    for column, head in enumerate(table.head):
        shown.add_column(head, justify="right" if column else "left", overflow="fold")
    for row in table.rows:
        shown.add_row(*row)
    console.print(shown)
    console.print()


def _run(console: Console) -> None:
    # Plots and peers are not installed where only instructions are counted.
    from benchmarks import measure, plots, report

    columns = (TextColumn("{task.description:<48}"), BarColumn(), TimeElapsedColumn())
    with Progress(*columns, console=console, disable=not console.is_terminal) as progress:
        bar = progress.add_task("", total=1.0)
        figures = measure.measure(
            lambda what, share: progress.update(bar, description=what, completed=share)
        )
    report.write(figures, plots.draw(figures, report.PICTURES))
    for table in all_tables(figures):
        _show(console, table)
    console.print(f"written: {report.PAGE.relative_to(native_library.ROOT)}")


def main() -> int:
    """The exit status."""
    parser = argparse.ArgumentParser(prog="python -m benchmarks", description=__doc__)
    parser.add_argument("what", nargs="?", choices=["run", "baseline"], default="run")
    arguments = parser.parse_args()
    console = Console()
    if not console.is_terminal:
        console = Console(width=200)  # a file is as wide as its tables
    try:
        if arguments.what == "baseline":
            regression.write(regression.measure())
            console.print(f"written: {regression.BASELINE.relative_to(native_library.ROOT)}")
        else:
            _run(console)
    except (AssertionError, RuntimeError) as error:
        print(error, file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("stopped: nothing was written", file=sys.stderr)
        return 130
    return 0


if __name__ == "__main__":
    sys.exit(main())
