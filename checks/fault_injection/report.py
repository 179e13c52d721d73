"""What a sweep says: how far it is, the points of each function, the fallible calls, the verdict.

A part that finds something wrong prints it and gives a line for each; the verdict counts them.
"""

from __future__ import annotations

from collections import defaultdict
from collections.abc import Iterable
from pathlib import Path

from rich.console import Console
from rich.progress import BarColumn, MofNCompleteColumn, Progress, TextColumn, TimeElapsedColumn
from rich.table import Table

from checks.fault_injection import imports
from checks.fault_injection.call_sites import Failed, lines, unknown_calls
from checks.fault_injection.sweep import Swept
from tests.support.function_table import FUNCTIONS
from tests.support.isolated import BUILD

SHOWN = 40  # complaints; the rest is counted
STEPS = 10  # lines of progress where there is no terminal


def progress(console: Console, swept: Iterable[Swept], count: int) -> list[Swept]:
    """The results as they come: a bar on a terminal, elsewhere a line for each tenth."""
    results: list[Swept] = []
    columns = (
        TextColumn("{task.description}"),
        BarColumn(),
        MofNCompleteColumn(),
        TextColumn("{task.fields[found]}"),
        TimeElapsedColumn(),
    )
    with Progress(*columns, console=console, disable=not console.is_terminal) as bar:
        task = bar.add_task("failing memory", total=count, found="cases")
        for result in swept:
            results.append(result)
            wrong = sum(len(result.complaints) for result in results)
            found = f"cases, {_all_points(results)} points, {wrong} wrong"
            bar.update(task, advance=1, found=found)
            done = len(results)
            if not console.is_terminal and done * STEPS // count > (done - 1) * STEPS // count:
                console.print(f"failing memory: {done} of {count} {found}")
    return results


def points(console: Console, results: list[Swept], count: int) -> list[str]:
    """The points of each function, and what is wrong at which."""
    table = Table("function", box=None)
    for column in ("cases", "single", "lasting", "wrong"):
        table.add_column(column, justify="right")
    of_function: dict[str, list[Swept]] = defaultdict(list)
    for result in results:
        of_function[result.function].append(result)
    steps = dict.fromkeys(case.function for case in imports.CASES)
    for function in (*steps, *(row.name for row in FUNCTIONS)):
        if function in of_function:
            _add_row(table, function, of_function[function])
    table.add_section()
    _add_row(table, "all", results)
    console.print(table)

    told = [f"{result.case}: {text}" for result in results for text in result.complaints]
    if len(results) < count:
        told.append(f"{count - len(results)} cases were not swept to their end")
    for text in told[:SHOWN]:
        console.print(text, markup=False)
    if len(told) > SHOWN:
        console.print(f"... and {len(told) - SHOWN} more")
    _show_deaths(console, results)
    return told


def _add_row(table: Table, name: str, results: list[Swept]) -> None:
    wrong = sum(len(result.complaints) for result in results)
    single = sum(result.single for result in results)
    lasting = sum(result.lasting for result in results)
    table.add_row(name, str(len(results)), str(single), str(lasting), str(wrong or ""))


def _show_deaths(console: Console, results: list[Swept]) -> None:
    cases: dict[str, list[str]] = defaultdict(list)
    for result in results:
        for death in result.deaths:
            cases[str(death)].append(result.case)
    for told, where in sorted(cases.items(), key=lambda item: -len(item[1])):
        console.print(f"{len(where)} times, first in {where[0]}: {told}", markup=False)


def calls(console: Console, failed: list[Failed], strangers: list[str], whole: bool) -> list[str]:
    """How many fallible calls were reached and failed; what of them is wrong."""
    listing = BUILD / "faults.txt"
    listing.write_text("".join(f"{line}\n" for line in lines(failed)))
    rows = [entry.row for entry in failed if entry.row is not None]
    console.print(
        f"fallible calls in the sources: {len(failed)}, "
        f"reached {sum(row.reached > 0 for row in rows)}, "
        f"failed {sum(entry.times > 0 for entry in failed)} "
        f"({sum(row.of_memory > 0 for row in rows)} for want of memory, "
        f"{sum(row.otherwise > 0 for row in rows)} otherwise, "
        f"{sum(row.forced > 0 for row in rows)} by their place): "
        f"{listing.relative_to(Path.cwd())}"
    )
    told = [
        *(f"recorded, but in no source: {key}" for key in strangers),
        *(f"neither fallible nor reviewed: {key}" for key in unknown_calls()),
    ]
    if whole:
        told += [f"never failed: {entry.site.key}" for entry in failed if not entry.times]
    for text in told:
        console.print(text, markup=False)
    return told


def symbols(console: Console, unknown: list[str]) -> list[str]:
    """What the built file refers to and nobody has reviewed."""
    told = [f"referred to, neither fallible nor reviewed: {name}" for name in unknown]
    for text in told:
        console.print(text, markup=False)
    return told


def verdict(
    console: Console, results: list[Swept], failed: list[Failed], wrong: list[str], whole: bool
) -> int:
    """The last line, and the exit status."""
    what = f"{_all_points(results)} points of {len(results)} cases"
    if whole:
        what += f", {sum(entry.times > 0 for entry in failed)} of {len(failed)} fallible calls"
    else:
        what += ", a part"
    console.print(f"faults: {what}: {f'{len(wrong)} WRONG' if wrong else 'nothing wrong'}")
    return 1 if wrong else 0


def _all_points(results: list[Swept]) -> int:
    return sum(result.single + result.lasting for result in results)
