"""`python -m tests.faults`: the sweep of every case, the points of each function, and the record of
fallible calls against the sources. Exit status 1 if anything is wrong, 2 for a usage error."""

from __future__ import annotations

import argparse
import os
import sys
import traceback
import warnings
from collections import Counter
from collections.abc import Iterator
from multiprocessing.connection import Connection, Pipe, wait
from pathlib import Path

from rich.console import Console
from rich.progress import BarColumn, MofNCompleteColumn, Progress, TextColumn, TimeElapsedColumn
from rich.table import Table

from appliance import Appliance, host
from tests.cases import CASES
from tests.faults import arranged, imports, sites
from tests.faults.library import Library, record
from tests.faults.sweep import AnyCase, Swept, sweep
from tests.fresh import BUILD, PRODUCT
from tests.functions import FUNCTIONS

SHOWN = 40  # complaints; the rest is counted

console = Console(highlight=False)


def arguments() -> argparse.Namespace:
    """What the command line asks for."""
    parser = argparse.ArgumentParser(prog="python -m tests.faults", description=__doc__)
    parser.add_argument("--only", metavar="TEXT", help="cases whose name contains this")
    parser.add_argument(
        "--every",
        type=int,
        default=1,
        metavar="N",
        help="one case of N, for a quick look; calls that never fail are no complaint then",
    )
    parser.add_argument(
        "--orderly",
        action="store_true",
        help="children end by the C library's exit, so that a coverage build counts them",
    )
    parser.add_argument("--jobs", type=int, default=len(os.sched_getaffinity(0)), metavar="N")
    return parser.parse_args()


def chosen(options: argparse.Namespace) -> list[AnyCase]:
    """The cases to sweep, or the end of the process with one line."""
    cases: list[AnyCase] = [*imports.CASES, *arranged.CASES, *CASES]
    if options.only:
        cases = [case for case in cases if options.only in str(case)]
    cases = cases[:: max(options.every, 1)]
    if not cases:
        console.print("faults: no case of that name")
        sys.exit(2)
    return cases


def prepared(path: Path) -> Library:
    """The library, with everything loaded that the module imports, but not the module."""
    library = Library()
    library.record_in(path)
    library.shelter_services()
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        import pyramid.compat  # noqa: F401
        import ujson  # noqa: F401
    with Appliance(live=False):
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
            work(library, cases[number :: options.jobs], writer, options.orderly)
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


def work(library: Library, cases: list[AnyCase], writer: Connection, orderly: bool) -> None:
    """Sweeps the cases one after the other, each in a process of its own."""
    for case in cases:
        child = os.fork()
        if child == 0:
            try:
                writer.send(sweep(library, case, orderly))
            except BaseException:
                told = traceback.format_exc()
                writer.send(Swept(str(case), case.function, complaints=[told]))
            os._exit(0)
        _pid, status = os.waitpid(child, 0)
        if status != 0:
            writer.send(Swept(str(case), case.function, complaints=[f"ended with {status}"]))


def sweep_all(library: Library, options: argparse.Namespace) -> list[Swept]:
    """The chosen cases under a progress bar."""
    cases = chosen(options)
    columns = (
        TextColumn("{task.description}"),
        BarColumn(),
        MofNCompleteColumn(),
        TextColumn("cases, {task.fields[points]} points, {task.fields[wrong]} wrong"),
        TimeElapsedColumn(),
    )
    results = []
    with Progress(*columns, console=console, disable=not console.is_terminal) as progress:
        bar = progress.add_task("failing memory", total=len(cases), points=0, wrong=0)
        for result in swept(library, cases, options):
            results.append(result)
            progress.update(
                bar,
                advance=1,
                points=sum(result.points for result in results),
                wrong=sum(len(result.complaints) for result in results),
            )
    return results


def show_points(results: list[Swept]) -> None:
    """The points of each function."""
    table = Table("function", box=None)
    for column in ("cases", "points", "wrong"):
        table.add_column(column, justify="right")
    cases = Counter(result.function for result in results)
    points: Counter[str] = Counter()
    wrong: Counter[str] = Counter()
    for result in results:
        points[result.function] += result.points
        wrong[result.function] += len(result.complaints)
    order = [*dict.fromkeys(case.function for case in imports.CASES), *(f.name for f in FUNCTIONS)]
    for function in (function for function in order if function in cases):
        table.add_row(
            function, str(cases[function]), str(points[function]), str(wrong[function] or "")
        )
    table.add_section()
    table.add_row("all", *(str(sum(counts.values())) for counts in (cases, points, wrong)))
    console.print(table)


def show_complaints(results: list[Swept]) -> int:
    """The first complaints; how many there are."""
    told = [f"{result.case}: {text}" for result in results for text in result.complaints]
    for text in told[:SHOWN]:
        console.print(text, markup=False, soft_wrap=True)
    if len(told) > SHOWN:
        console.print(f"... and {len(told) - SHOWN} more")
    return len(told)


def show_sites(path: Path) -> int:
    """How many fallible calls failed; those that never did, and how many things are wrong."""
    failed, strangers = sites.table(record(path))
    listing = BUILD / "faults.txt"
    listing.write_text("".join(f"{line}\n" for line in sites.lines(failed)))
    never = [entry.site.key for entry in failed if not entry.times]
    wrong = [
        *(f"is in no source: {key}" for key in strangers),
        *(f"neither fallible nor reviewed: {key}" for key in sites.unknown_calls()),
        *(f"neither fallible nor reviewed: {name}" for name in sites.unknown_symbols(PRODUCT)),
    ]
    by_memory = sum(bool(entry.row and entry.row.of_memory) for entry in failed)
    console.print(
        f"{len(failed) - len(never)} of {len(failed)} fallible calls failed, "
        f"{by_memory} of them for want of memory: {listing.relative_to(Path.cwd())}"
    )
    for text in [*(f"never failed: {key}" for key in never), *wrong]:
        console.print(text, markup=False, soft_wrap=True)
    return len(wrong) + len(never)


def main() -> int:
    """The exit status."""
    options = arguments()
    if not (host.build_directory() / "libfaults.so").is_file():
        console.print("faults: nothing is built to sweep; run: make faults")
        return 1
    path = BUILD / f"faults.{os.getpid()}.record"
    library = prepared(path)
    results = sweep_all(library, options)
    show_points(results)
    wrong = show_complaints(results)
    if record(path):
        unfailed = show_sites(path)
        wrong += unfailed if options.every == 1 and not options.only else 0
    path.unlink()
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
