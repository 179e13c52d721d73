"""The printed report of a sweep.

Each function prints a part and returns the findings in it; `print_verdict` counts them.
"""

from __future__ import annotations

import os
from collections import defaultdict
from collections.abc import Iterable, Iterator

from rich.console import Console
from rich.progress import BarColumn, MofNCompleteColumn, Progress, TextColumn, TimeElapsedColumn
from rich.table import Table

from checks.fault_injection.call_sites import (
    TABLE_HEAD,
    CallSiteCoverage,
    find_unreviewed_calls,
    find_unreviewed_symbols,
)
from checks.fault_injection.sweep import CaseResult
from tests.support.isolated import BUILD, MODULE_PATH

MAX_FINDINGS = 40  # printed; the rest is counted
UPDATES = 10  # lines of progress without a terminal


def show_progress(
    console: Console, results: Iterable[CaseResult], count: int
) -> Iterator[CaseResult]:
    """Yield the results as they arrive and show the progress."""
    columns = (
        TextColumn("injecting failures"),
        BarColumn(),
        MofNCompleteColumn(),
        TextColumn("{task.description}"),
        TimeElapsedColumn(),
    )
    points = findings = 0
    with Progress(*columns, console=console, disable=not console.is_terminal) as progress:
        task = progress.add_task("cases", total=count)
        for done, result in enumerate(results, 1):
            points += result.one_shot + result.persistent
            findings += len(result.findings)
            description = f"cases, {points} points, {findings} findings"
            progress.update(task, advance=1, description=description)
            if not console.is_terminal and done * UPDATES // count > (done - 1) * UPDATES // count:
                console.print(f"injecting failures: {done} of {count} {description}")
            yield result


def print_points(console: Console, results: list[CaseResult], count: int) -> list[str]:
    """Print the injection points of each function, the findings and the crashes."""
    by_function: dict[str, list[CaseResult]] = defaultdict(list)
    for result in results:
        by_function[result.function].append(result)
    table = Table("function", box=None)
    for column in ("cases", "one-shot", "persistent", "findings"):
        table.add_column(column, justify="right")
    for function, group in [*sorted(by_function.items()), ("all", results)]:
        findings = sum(len(result.findings) for result in group)
        one_shot = sum(result.one_shot for result in group)
        persistent = sum(result.persistent for result in group)
        table.add_row(
            function, str(len(group)), str(one_shot), str(persistent), str(findings or "")
        )
    console.print(table)

    messages = [f"{result.case}: {text}" for result in results for text in result.findings]
    if len(results) < count:
        messages.append(f"{count - len(results)} cases have no result")
    for text in messages[:MAX_FINDINGS]:
        console.print(text, markup=False)
    if len(messages) > MAX_FINDINGS:
        console.print(f"... and {len(messages) - MAX_FINDINGS} more")

    cases: dict[str, list[str]] = defaultdict(list)
    for result in results:
        for crash in result.crashes:
            cases[str(crash)].append(result.case)
    for text, names in sorted(cases.items(), key=lambda item: -len(item[1])):
        console.print(f"{len(names)} times, first in {names[0]}: {text}", markup=False)
    return messages


def print_call_sites(
    console: Console, coverage: list[CallSiteCoverage], unknown: list[str], complete: bool
) -> list[str]:
    """Print the call-site coverage and write its table; a complete sweep must cover every call."""
    table = BUILD / "call_sites.txt"
    table.write_text("".join(f"{line}\n" for line in (TABLE_HEAD, *coverage)))
    rows = [entry.row for entry in coverage if entry.row is not None]
    console.print(
        f"fallible calls: {len(coverage)}, reached {sum(row.reached > 0 for row in rows)}, "
        f"failed {sum(entry.failures > 0 for entry in coverage)} "
        f"({sum(row.oom > 0 for row in rows)} out of memory, "
        f"{sum(row.other > 0 for row in rows)} for other reasons, "
        f"{sum(row.forced > 0 for row in rows)} forced): {os.path.relpath(table)}"
    )
    messages = [
        *(f"logged, but not in the sources: {key}" for key in unknown),
        *(f"neither fallible nor reviewed: {key}" for key in find_unreviewed_calls()),
        *(
            f"used, neither fallible nor reviewed: {key}"
            for key in find_unreviewed_symbols(MODULE_PATH)
        ),
    ]
    if complete:
        messages += [f"never failed: {entry.site.key}" for entry in coverage if not entry.failures]
    for text in messages:
        console.print(text, markup=False)
    return messages


def print_verdict(
    console: Console,
    results: list[CaseResult],
    coverage: list[CallSiteCoverage],
    findings: list[str],
    complete: bool,
) -> int:
    """Print the last line and return the exit status."""
    points = sum(result.one_shot + result.persistent for result in results)
    summary = f"{points} points of {len(results)} cases, "
    if complete:
        failed = sum(entry.failures > 0 for entry in coverage)
        summary += f"{failed} of {len(coverage)} fallible calls"
    else:
        summary += "a partial sweep"
    console.print(f"fault-injection: {summary}: {len(findings)} findings")
    return 1 if findings else 0
