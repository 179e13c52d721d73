"""Call every function a million times from several threads and check for growth.

The exit status is 1 if a metric grows by more than its limit or a call does not end as expected.
"""

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

from checks.soak import report
from checks.soak.metrics import METRICS, Growth, Samples, measure_growth
from checks.soak.workload import Workload
from tests.support.call_cases import CASES
from tests.support.isolated import BUILD, ROOT
from tests.support.refcounts import tracked_objects
from veldarin_simulator import Simulator

ROUNDS = 48  # with a sample after each
PRINTED = 6  # samples
CALLS = 1_000_000

console = Console(highlight=False, soft_wrap=True)


def parse_arguments() -> argparse.Namespace:
    """Parse the command line."""
    parser = argparse.ArgumentParser(prog="python -m checks.soak", description=__doc__)
    parser.add_argument("--calls", type=int, default=CALLS, metavar="N", help="at least N calls")
    parser.add_argument("--threads", type=int, default=4, metavar="N")
    return parser.parse_args()


def run(workload: Workload, calls: int) -> Samples:
    """Run the rounds and return the samples; print some of them."""
    repeats = -(-calls // (ROUNDS * workload.threads * len(CASES)))
    tracked = tracked_objects(workload.module, [])
    samples = Samples(ROUNDS)
    bar = ProgressBar(total=ROUNDS)  # rich's Progress stores its measurements and grows
    console.print(*(f"{head:>11}" for head in ("calls", *(row.short for row in METRICS))), sep="")
    with Live(bar, console=console) if console.is_terminal else nullcontext():
        done = 0
        for number in range(ROUNDS):
            done += workload.run_round(repeats, number)
            samples.take(number, done, workload.simulator, tracked)
            bar.update(number + 1)
            if (number + 1) % (ROUNDS // PRINTED) == 0:
                row = (values[number] for values in (samples.calls, *samples.values))
                console.print(*(f"{value:>11,.0f}" for value in row), sep="")
    return samples


def print_growths(growths: list[Growth]) -> None:
    """Print the growth of each metric and whether it is within the limit."""
    table = Table(box=None)
    table.add_column(no_wrap=True)
    for column in ("2nd quarter", "last quarter", "growth", "limit", ""):
        table.add_column(column, justify="right")
    for growth in growths:
        table.add_row(*growth.row, "flat" if growth.is_flat else "GROWS")
    console.print(table)


def main() -> int:
    """Run the command and return its exit status."""
    options = parse_arguments()
    if not (BUILD / "libsimulator.so").is_file():
        console.print(f"soak: {BUILD} has no libsimulator.so; run: make soak")
        return 1
    warnings.simplefilter("ignore", DeprecationWarning)  # pyramid.compat
    sys.setswitchinterval(1e-4)  # switches threads as often as possible
    start = time.monotonic()
    try:
        with Simulator(live=False) as simulator, Workload(simulator, options.threads) as workload:
            samples = run(workload, options.calls)
    except AssertionError as error:
        console.print(f"soak: {error}", markup=False)
        return 1
    growths = measure_growth(samples, len(CASES))
    print_growths(growths)
    flat = all(growth.is_flat for growth in growths)
    if flat and options.calls >= CALLS:
        for file in report.write(samples, growths, time.monotonic() - start, options.threads):
            console.print(f"wrote {file.relative_to(ROOT)}")
    return 0 if flat else 1


if __name__ == "__main__":
    sys.exit(main())
