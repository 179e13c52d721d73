"""Inject a failure at every allocation of every case, and check that every fallible call fails.

The exit status is 1 for a finding or a missing build, and 2 for a usage error.
"""

from __future__ import annotations

import argparse
import os
import sys
import traceback
import warnings
from collections import defaultdict
from collections.abc import Iterator
from contextlib import suppress
from itertools import islice
from multiprocessing.connection import Connection, Pipe, wait
from pathlib import Path
from typing import NoReturn

from rich.console import Console

from checks.fault_injection import call_sites, imports, process_cases, report
from checks.fault_injection.libfaults import FaultInjector, read_log
from checks.fault_injection.sweep import AnyCase, CaseResult, sweep
from tests.support.call_cases import CASES
from tests.support.isolated import BUILD
from veldarin_simulator import Simulator

console = Console(highlight=False, soft_wrap=True)


def parse_arguments() -> argparse.Namespace:
    """Parse the command line."""
    parser = argparse.ArgumentParser(prog="python -m checks.fault_injection", description=__doc__)
    parser.add_argument("--only", metavar="TEXT", help="run the cases whose name contains TEXT")
    parser.add_argument(
        "--shard",
        type=parse_shard,
        default=(1, 1),
        metavar="K/N",
        help="run the Kth of N parts, each with at least one case of every function; calls that "
        "never fail are not findings then",
    )
    parser.add_argument(
        "--one-shot",
        action="store_true",
        help="inject no persistent failures; calls that never fail are not findings then",
    )
    parser.add_argument(
        "--run-atexit",
        action="store_true",
        help="end children through C's exit, so that a coverage build writes its counts",
    )
    parser.add_argument("--jobs", type=int, default=len(os.sched_getaffinity(0)), metavar="N")
    return parser.parse_args()


def parse_shard(text: str) -> tuple[int, int]:
    """Parse "K/N" with 1 <= K <= N."""
    number, count = map(int, text.split("/"))
    if not 1 <= number <= count:
        raise ValueError
    return number, count


def select_cases(only: str | None = None, shard: tuple[int, int] = (1, 1)) -> list[AnyCase]:
    """Select the cases to sweep."""
    by_function: dict[str, list[AnyCase]] = defaultdict(list)
    cases: list[AnyCase] = [*imports.CASES, *process_cases.CASES, *CASES]
    for case in cases:
        if only is None or only in str(case):
            by_function[case.function].append(case)
    number, count = shard
    return [
        case for cases in by_function.values() for case in cases[(number - 1) % len(cases) :: count]
    ]


def prepare(log: Path) -> FaultInjector:
    """Load everything that the module imports, but not the module, and hook the allocators."""
    injector = FaultInjector()
    injector.open_log(log)
    injector.exempt_providers()
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        import pyramid.compat  # noqa: F401
        import ujson  # noqa: F401
    with Simulator(live=False):
        pass
    injector.install()
    return injector


def run_cases(
    injector: FaultInjector, cases: list[AnyCase], options: argparse.Namespace
) -> Iterator[CaseResult]:
    """Sweep each case in a process of its own and yield the results as they arrive."""
    remaining = iter(cases)
    running: dict[Connection, tuple[AnyCase, int]] = {}
    while True:
        for case in islice(remaining, options.jobs - len(running)):
            reader, writer = Pipe(duplex=False)
            child = os.fork()
            if child == 0:
                run_case(injector, case, writer, options)
            writer.close()
            running[reader] = case, child
        if not running:
            return
        for ready in wait([*running]):
            assert isinstance(ready, Connection)
            case, child = running.pop(ready)
            with suppress(EOFError):
                yield ready.recv()
            _pid, status = os.waitpid(child, 0)
            if status != 0:
                finding = f"ended with wait status {status}"
                yield CaseResult(str(case), case.function, findings=[finding])


def run_case(
    injector: FaultInjector, case: AnyCase, writer: Connection, options: argparse.Namespace
) -> NoReturn:
    """Sweep a case, send the result and end this process."""
    try:
        result = sweep(injector, case, options.run_atexit, options.one_shot)
    except BaseException:
        result = CaseResult(str(case), case.function, findings=[traceback.format_exc()])
    writer.send(result)
    os._exit(0)


def main() -> int:
    """Run the command and return its exit status."""
    options = parse_arguments()
    if not (BUILD / "libfaults.so").is_file():
        console.print(f"fault-injection: {BUILD} has no libfaults.so; run: make fault-injection")
        return 1
    cases = select_cases(options.only, options.shard)
    if not cases:
        console.print(f"fault-injection: no case has {options.only!r} in its name")
        return 2
    log = BUILD / f"call_sites.{os.getpid()}.log"
    try:
        injector = prepare(log)
        results = run_cases(injector, cases, options)
        finished = list(report.show_progress(console, results, len(cases)))
        coverage, unknown = call_sites.match_log(read_log(log))
    finally:
        log.unlink(missing_ok=True)
    complete = options.shard[1] == 1 and not options.only and not options.one_shot
    findings = [
        *report.print_points(console, finished, len(cases)),
        *report.print_call_sites(console, coverage, unknown, complete),
    ]
    return report.print_verdict(console, finished, coverage, findings, complete)


if __name__ == "__main__":
    sys.exit(main())
