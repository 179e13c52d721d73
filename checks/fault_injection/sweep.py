"""Sweeps a case: a child process for each failing allocation and for each forced failure."""

from __future__ import annotations

import tempfile
from collections.abc import Iterable
from contextlib import ExitStack
from dataclasses import dataclass, field
from typing import Any, Callable, Protocol, TypeVar, Union

from checks.fault_injection.call_sites import FORCED_FAILURES
from checks.fault_injection.call_subject import CallSubject
from checks.fault_injection.forks import Crash, CrashError, ForkRunner
from checks.fault_injection.imports import ImportCase, ImportSubject
from checks.fault_injection.libfaults import FaultInjector, InjectionPoint
from checks.fault_injection.process_cases import ProcessCase
from tests.support.call_cases import CallCase
from veldarin_simulator import Simulator

AnyCase = Union[CallCase, ProcessCase, ImportCase]
Result = TypeVar("Result")

# Calls that allocate nothing: they return True or False.
WITHOUT_ALLOCATIONS = {
    "check_cert_expiration-(b'/certificate',)",
    "check_cert_expiration-expired",
}
MAX_CRASHES = 5  # after which the sweep of a failure mode and allocator ends


class Subject(Protocol):
    """A case prepared in this process; `inject` and `force` run in forks of it."""

    def first_points(self) -> Iterable[InjectionPoint]:
        """Yield the first injection point of each failure mode and allocator."""

    def inject(self, point: InjectionPoint) -> tuple[bool, list[str]]:
        """Return whether an allocation failed, and the findings."""

    def force(self, key: str) -> list[str]:
        """Return the findings with a fallible call forced to fail."""


@dataclass
class CaseResult:
    """The number of injection points of a case, and the findings."""

    case: str
    function: str
    one_shot: int = 0
    persistent: int = 0
    findings: list[str] = field(default_factory=list)
    crashes: list[Crash] = field(default_factory=list)  # each of them is a finding, too


def sweep(
    injector: FaultInjector, case: AnyCase, run_atexit: bool, one_shot: bool = False
) -> CaseResult:
    """Sweep all injection points of a case, or only the one-shot failures.

    The process must not be used for another case. With `run_atexit` the children end through C's
    `exit`, so that a coverage build writes counts.
    """
    result = CaseResult(str(case), case.function)
    with tempfile.TemporaryFile() as stderr, ExitStack() as stack:
        forks = ForkRunner(stderr, run_atexit)
        injector.install_crash_handler()
        subject: Subject
        if isinstance(case, ImportCase):
            subject = ImportSubject(injector, case, forks)
        else:
            process_case = case if isinstance(case, ProcessCase) else ProcessCase(case)
            simulator = stack.enter_context(Simulator(live=False))
            subject = CallSubject(injector, process_case, simulator)
        for point in subject.first_points():
            if not (one_shot and point.persistent):
                _sweep_from(subject, point, forks, result)
        swept = result.one_shot > 0 and (one_shot or result.persistent > 0)
        if swept == (result.case in WITHOUT_ALLOCATIONS):
            result.findings.append(f"{'an' if swept else 'no'} allocation failed")
        for row in FORCED_FAILURES:
            if row.case == str(case) and injector.has_log():
                key = injector.find_key(row.call)
                findings: list[str] = _run(forks, result, subject.force, key) or []
                result.findings += [f"{key} forced to fail: {finding}" for finding in findings]
    return result


def _sweep_from(
    subject: Subject, point: InjectionPoint, forks: ForkRunner, result: CaseResult
) -> None:
    """Sweep from a point on until the case has no later allocation to fail."""
    crashes = len(result.crashes)
    triggered = True
    while triggered and len(result.crashes) < crashes + MAX_CRASHES:
        triggered, findings = _run(forks, result, subject.inject, point) or (True, [])
        result.findings += [f"{point}: {finding}" for finding in findings]
        result.persistent += triggered and point.persistent
        result.one_shot += triggered and not point.persistent
        point = point.next
    if triggered:
        result.findings.append(f"{point} and later: not swept after {MAX_CRASHES} crashes")


def _run(
    forks: ForkRunner, result: CaseResult, function: Callable[[Any], Result], argument: object
) -> Result | None:
    """Call a function in a fork; add a crash to the result."""
    try:
        return forks.run(function, argument)
    except CrashError as error:
        result.crashes.append(error.crash)
        result.findings.append(f"{argument}: {error}")
        return None
