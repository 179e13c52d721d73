"""Fuzz the parsers with libFuzzer and report the coverage.

The exit status is 1 for a finding; its input is copied to checks/fuzz/crashes for the tests.
"""

from __future__ import annotations

import argparse
import sys

from rich.console import Console
from rich.progress import BarColumn, Progress, TextColumn, TimeElapsedColumn

from checks.fuzz import runner
from checks.fuzz.runner import Run
from tests.support.isolated import ROOT

console = Console(highlight=False, soft_wrap=True)


def parse_arguments() -> argparse.Namespace:
    """Parse the command line."""
    parser = argparse.ArgumentParser(prog="python -m checks.fuzz", description=__doc__)
    parser.add_argument("--seconds", type=int, default=60, metavar="N")
    parser.add_argument(
        "--minimize-corpus",
        action="store_true",
        help="replace the tests' corpus with the fewest known inputs that reach every edge",
    )
    return parser.parse_args()


def run_targets(seconds: int) -> list[Run]:
    """Run the targets until the time is up or one has a finding."""
    leaks = runner.can_detect_leaks()
    if not leaks:
        console.print("fuzz: no leak detection, because processes cannot be traced here")
    runs = runner.start(seconds, leaks)
    columns = (
        TextColumn("{task.description}"),
        BarColumn(),
        TextColumn("{task.fields[edges]} edges"),
        TimeElapsedColumn(),
    )
    with Progress(*columns, console=console, disable=not console.is_terminal) as progress:
        bar = progress.add_task("fuzzing", total=seconds, edges=0)
        for elapsed in runner.wait(runs, seconds):
            edges = max(runner.parse_stats(run.read_log(4096)).edges for run in runs)
            progress.update(bar, completed=min(elapsed, seconds), edges=edges)
    return runs


def print_result(run: Run) -> bool:
    """Print the result of a run; return whether it is good."""
    log = run.read_log()
    stats = runner.parse_stats(log)
    if not run.has_finding:
        console.print(
            f"{run.target.name}: {stats.runs:,} runs, {stats.speed:,} per second; "
            f"{stats.edges:,} edges, {stats.features:,} features; "
            + ("stopped" if run.stopped else "no findings")
        )
        # A run that was stopped although no other one has a finding did not keep its time limit.
        return not run.stopped and stats.runs > 0
    console.print(f"{run.target.name}: a finding after {stats.runs:,} runs")
    console.print(*runner.extract_finding(log), sep="\n", markup=False)
    for file in runner.save_crashes(run):
        console.print(f"input: {file.relative_to(ROOT)}")
    console.print(f"log: {run.log.relative_to(ROOT)}")
    return False


def main() -> int:
    """Run the command and return its exit status."""
    options = parse_arguments()
    if not (runner.BUILD / "fuzz_parsers").is_file():
        console.print(f"fuzz: {runner.BUILD} has no fuzz_parsers; run: make fuzz")
        return 1
    runner.prepare()
    results = [print_result(run) for run in run_targets(options.seconds)]
    if not all(results):
        return 1
    files = runner.line_coverage().items()
    counts = ", ".join(f"{file} {covered} of {count}" for file, (covered, count) in files)
    console.print(f"line coverage: {counts}")
    if options.minimize_corpus:
        console.print(f"corpus of the tests: {len(runner.minimize_corpus())} inputs")
    return 0


if __name__ == "__main__":
    sys.exit(main())
