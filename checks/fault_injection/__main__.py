"""`python -m checks.fault_injection`: sweep every case and compare the recorded call sites with the
sources. Exit status 1 for a finding, 2 for a usage error."""

from __future__ import annotations

import argparse
import os
import sys
import traceback
import warnings
from collections import defaultdict
from collections.abc import Iterator
from multiprocessing.connection import Connection, Pipe, wait
from pathlib import Path

from rich.console import Console

from checks.fault_injection import call_sites, imports, process_cases, report
from checks.fault_injection.libfaults import Library, record
from checks.fault_injection.sweep import AnyCase, Swept, sweep
from tests.support.call_cases import CASES
from tests.support.isolated import BUILD, MODULE_PATH
from veldarin_simulator import Simulator, native_library

console = Console(highlight=False, soft_wrap=True)


def arguments() -> argparse.Namespace:
    """What the command line asks for."""
    parser = argparse.ArgumentParser(prog="python -m checks.fault_injection", description=__doc__)
    parser.add_argument("--only", metavar="TEXT", help="cases whose name contains this")
    parser.add_argument(
        "--every",
        type=positive,
        default=1,
        metavar="N",
        help="of each function one case of N, at least one; calls that never fail are no "
        "complaint then",
    )
    parser.add_argument(
        "--from",
        type=positive,
        default=1,
        metavar="K",
        dest="first",
        help="the first case with --every: 1 to N together are all",
    )
    parser.add_argument(
        "--single",
        action="store_true",
        help="one allocation fails at a time, and none after it; calls that never fail are no "
        "complaint then",
    )
    parser.add_argument(
        "--orderly",
        action="store_true",
        help="children end by the C library's exit, so that a coverage build counts them",
    )
    cores = len(os.sched_getaffinity(0))
    parser.add_argument("--jobs", type=positive, default=cores, metavar="N")
    return parser.parse_args()


def positive(text: str) -> int:
    """A number from 1 on."""
    number = int(text)
    if number < 1:
        raise ValueError
    return number


def chosen(options: argparse.Namespace) -> list[AnyCase]:
    """The cases to sweep, or the end of the process with one line."""
    cases: list[AnyCase] = [*imports.CASES, *process_cases.CASES, *CASES]
    if options.only:
        cases = [case for case in cases if options.only in str(case)]
    of_function: dict[str, list[AnyCase]] = defaultdict(list)
    for case in cases:
        of_function[case.function].append(case)
    parts = [
        part[(options.first - 1) % len(part) :: options.every] for part in of_function.values()
    ]
    if not parts:
        console.print(f"faults: no case has {options.only!r} in its name")
        sys.exit(2)
    return [case for part in parts for case in part]


def prepared(path: Path) -> Library:
    """The library, with everything loaded that the module imports, but not the module."""
    library = Library()
    library.record_in(path)
    library.shelter_services()
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        import pyramid.compat  # noqa: F401
        import ujson  # noqa: F401
    with Simulator(live=False):
        pass
    library.install()
    return library


def swept(library: Library, cases: list[AnyCase], options: argparse.Namespace) -> Iterator[Swept]:
    """What becomes of the cases, as it comes, from several processes."""
    readers, workers = [], []
    for number in range(options.jobs):
        reader, writer = Pipe(duplex=False)
        worker = os.fork()
        if worker == 0:
            reader.close()
            work(library, cases[number :: options.jobs], writer, options)
            os._exit(0)
        writer.close()
        readers.append(reader)
        workers.append(worker)
    while readers:
        for ready in wait(readers):
            assert isinstance(ready, Connection)
            try:
                yield ready.recv()
            except EOFError:
                readers.remove(ready)
    for worker in workers:
        os.waitpid(worker, 0)


def work(
    library: Library, cases: list[AnyCase], writer: Connection, options: argparse.Namespace
) -> None:
    """Sweeps the cases one after the other, each in a process of its own."""
    for case in cases:
        child = os.fork()
        if child == 0:
            try:
                writer.send(sweep(library, case, options.orderly, options.single))
            except BaseException:
                told = traceback.format_exc()
                writer.send(Swept(str(case), case.function, complaints=[told]))
            os._exit(0)
        _pid, status = os.waitpid(child, 0)
        if status != 0:
            writer.send(Swept(str(case), case.function, complaints=[f"ended with {status}"]))


def main() -> int:
    """The exit status."""
    options = arguments()
    if not (native_library.build_directory() / "libfaults.so").is_file():
        console.print("faults: nothing is built to sweep; run: make faults")
        return 1
    cases = chosen(options)
    path = BUILD / f"faults.{os.getpid()}.record"
    try:
        library = prepared(path)
        results = report.progress(console, swept(library, cases, options), len(cases))
        failed, strangers = call_sites.table(record(path))
    finally:
        path.unlink(missing_ok=True)
    whole = options.every == 1 and not options.only and not options.single
    wrong = [
        *report.points(console, results, len(cases)),
        *report.calls(console, failed, strangers, whole),
        *report.symbols(console, call_sites.unknown_symbols(MODULE_PATH)),
    ]
    return report.verdict(console, results, failed, wrong, whole)


if __name__ == "__main__":
    sys.exit(main())
