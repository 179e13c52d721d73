"""`python -m checks.soak`: the calls, the counts as they go, and the verdict. Exit status 1 if a
count is not flat, or a call ended otherwise than its case says."""

from __future__ import annotations

import argparse
import sys
import time
import warnings
from contextlib import nullcontext

from rich.console import Console
from rich.live import Live
from rich.progress_bar import ProgressBar
from rich.table import Table

from checks.soak import metrics, report
from checks.soak.metrics import COUNTS, Growth, Record
from checks.soak.workload import Stage
from tests.support.call_cases import CASES
from tests.support.refcounts import tracked_objects
from veldarin_simulator import Simulator, native_library

ROUNDS = 48  # a sample after each
SHOWN = 6  # of them
CALLS = 1_000_000

console = Console(highlight=False, soft_wrap=True)


def arguments() -> argparse.Namespace:
    """What the command line asks for."""
    parser = argparse.ArgumentParser(prog="python -m checks.soak", description=__doc__)
    parser.add_argument("--calls", type=int, default=CALLS, metavar="N", help="at least so many")
    parser.add_argument("--threads", type=int, default=4, metavar="N")
    return parser.parse_args()


def soaked(stage: Stage, calls: int) -> Record:
    """The counts after every round, under a progress bar; some of them told on the way."""
    times = -(-calls // (ROUNDS * stage.threads * len(CASES)))
    objects = tracked_objects(stage.module, [])
    record = Record(ROUNDS)
    bar = ProgressBar(total=ROUNDS)  # no `Progress`: it keeps what it measures, and that grows
    console.print(
        *(f"{head:>11}" for head in ["calls", *(count.short for count in COUNTS)]), sep=""
    )
    with Live(bar, console=console) if console.is_terminal else nullcontext():
        made = 0
        for number in range(ROUNDS):
            made += stage.round(times, number)
            record.take(number, made, stage.simulator, objects)
            bar.update(number + 1)
            if (number + 1) % (ROUNDS // SHOWN) == 0:
                counts = (values[number] for values in (record.calls, *record.counts))
                console.print(*(f"{count:>11,.0f}" for count in counts), sep="")
    return record


def show(growths: list[Growth]) -> None:
    """The verdict on each count."""
    table = Table(box=None)
    table.add_column(no_wrap=True)
    for column in ("2nd quarter", "last quarter", "growth", "limit", ""):
        table.add_column(column, justify="right")
    for growth in growths:
        digits = 1 if growth.of.short == "MiB" else 0
        figures = (growth.before, growth.after, growth.after - growth.before, growth.limit)
        verdict = "flat" if growth.flat else "NOT FLAT"
        table.add_row(growth.of.name, *(f"{figure:,.{digits}f}" for figure in figures), verdict)
    console.print(table)


def main() -> int:
    """The exit status."""
    options = arguments()
    if not (native_library.build_directory() / "libsimulator.so").is_file():
        console.print("soak: nothing is built to soak; run: make soak")
        return 1
    warnings.simplefilter("ignore", DeprecationWarning)  # of a library's next release
    sys.setswitchinterval(1e-4)  # the lock changes hands wherever it can
    begun = time.monotonic()
    try:
        with Simulator(live=False) as simulator, Stage(simulator, options.threads) as stage:
            record = soaked(stage, options.calls)
    except AssertionError as error:
        console.print(f"soak: {error}", markup=False)
        return 1
    growths = metrics.growths(record, len(CASES))
    show(growths)
    flat = all(growth.flat for growth in growths)
    if flat and options.calls >= CALLS:
        seconds = time.monotonic() - begun
        for file in report.write(record, growths, seconds, options.threads):
            console.print(f"written: {file.relative_to(native_library.ROOT)}")
    return 0 if flat else 1


if __name__ == "__main__":
    sys.exit(main())
