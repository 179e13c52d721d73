"""`python -m checks.fuzz`: the fuzzer's targets for a number of seconds, then what they reached.
Exit status 1 with a finding, which is put where the tests go through it."""

from __future__ import annotations

import argparse
import sys

from rich.console import Console
from rich.progress import BarColumn, Progress, TextColumn, TimeElapsedColumn

from checks.fuzz import runner, summary
from checks.fuzz.runner import Run
from tests.support.isolated import ROOT

console = Console(highlight=False, soft_wrap=True)


def arguments() -> argparse.Namespace:
    """What the command line asks for."""
    parser = argparse.ArgumentParser(prog="python -m checks.fuzz", description=__doc__)
    parser.add_argument("--seconds", type=int, default=60, metavar="N")
    parser.add_argument(
        "--collect",
        action="store_true",
        help="afterwards, the fewest inputs that reach every edge become the tests' corpus",
    )
    return parser.parse_args()


def watched(seconds: int) -> list[Run]:
    """The targets, under a progress bar until the time is up or something is found."""
    leaks = runner.sees_leaks()
    if not leaks:
        console.print("fuzz: leaks are not looked for, as no process may be traced here")
    runs = runner.started(seconds, leaks)
    columns = (
        TextColumn("{task.description}"),
        BarColumn(),
        TextColumn("{task.fields[edges]} edges"),
        TimeElapsedColumn(),
    )
    with Progress(*columns, console=console, disable=not console.is_terminal) as progress:
        bar = progress.add_task("fuzzing", total=seconds, edges=0)
        for gone in runner.ticks(runs, seconds):
            edges = max(summary.reached(run.latest).edges for run in runs)
            progress.update(bar, completed=min(gone, seconds), edges=edges)
    return runs


def tell(run: Run) -> bool:
    """One run in a few lines; whether all was well."""
    reached = summary.reached(run.text)
    if not run.failed:
        console.print(
            f"{run.target.name}: {reached.runs:,} runs, {reached.speed:,} a second; "
            f"{reached.edges:,} edges, {reached.features:,} features; "
            + ("stopped" if run.stopped else "nothing found")
        )
        # One that was stopped without another's finding did not keep its time.
        return not run.stopped and reached.runs > 0
    console.print(f"{run.target.name}: a finding after {reached.runs:,} runs")
    console.print(*summary.report(run.text), sep="\n", markup=False)
    for kept in runner.kept(run):
        console.print(f"input: {kept.relative_to(ROOT)}")
    console.print(f"log: {run.log.relative_to(ROOT)}")
    return False


def tell_lines() -> None:
    """How much of each file of the parsers was run."""
    profiles = [*runner.PROFILES.glob("*.profraw")]
    if profiles:
        files = summary.lines_of_files(runner.PRODUCT, profiles).items()
        told = (f"{file} {run} of {lines}" for file, (run, lines) in files)
        console.print(f"lines: {', '.join(told)}")


def main() -> int:
    """The exit status."""
    options = arguments()
    if not (runner.BUILD / "fuzz_parsers").is_file():
        console.print("fuzz: nothing is built to fuzz; run: make fuzz")
        return 1
    runner.prepare()
    runs = watched(options.seconds)
    verdicts = [tell(run) for run in runs]
    if all(verdicts):
        tell_lines()
    if options.collect and all(verdicts):
        console.print(f"the tests' corpus: {len(runner.collect())} inputs")
    return 0 if all(verdicts) else 1


if __name__ == "__main__":
    sys.exit(main())
