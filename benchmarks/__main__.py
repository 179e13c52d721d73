"""The benchmarks' face: `run` measures everything and writes docs/benchmarks.md, `baseline` makes
what is counted now the figures that the tests compare."""

from __future__ import annotations

import argparse
import sys

from rich.console import Console
from rich.progress import BarColumn, Progress, TextColumn, TimeElapsedColumn
from rich.table import Table as RichTable

from appliance import host
from benchmarks import gate
from benchmarks.tables import Table, all_tables


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
    from benchmarks import page, plots, run

    columns = (TextColumn("{task.description:<48}"), BarColumn(), TimeElapsedColumn())
    with Progress(*columns, console=console, disable=not console.is_terminal) as progress:
        bar = progress.add_task("", total=1.0)
        figures = run.measure(
            lambda what, share: progress.update(bar, description=what, completed=share)
        )
    page.write(figures, plots.draw(figures, page.PICTURES))
    for table in all_tables(figures):
        _show(console, table)
    console.print(f"written: {page.PAGE.relative_to(host.ROOT)}")


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
            gate.write(gate.measure())
            console.print(f"written: {gate.BASELINE.relative_to(host.ROOT)}")
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
