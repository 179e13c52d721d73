"""The points of a case: each allocation that it makes, and a child process in which it fails."""

from __future__ import annotations

import tempfile
from collections.abc import Iterable
from contextlib import ExitStack
from dataclasses import dataclass, field
from typing import Protocol, Union

from checks.fault_injection.call_subject import CallSubject
from checks.fault_injection.crashes import Death
from checks.fault_injection.forced_failures import FORCED
from checks.fault_injection.forks import Children, DiedError
from checks.fault_injection.imports import Import, ImportCase
from checks.fault_injection.libfaults import Library, Point
from checks.fault_injection.process_cases import Arranged
from checks.fault_injection.results import Found
from tests.support.call_cases import CallCase
from veldarin_simulator import Simulator

AnyCase = Union[CallCase, Arranged, ImportCase]
# Calls that make nothing: their result is one of the interpreter's two truths.
NEEDING_NO_MEMORY = {
    "check_cert_expiration-(b'/certificate',)",
    "check_cert_expiration-expired",
}
DEATHS = 5  # of a case, after which nobody needs to know more


class Subject(Protocol):
    """A case in this process."""

    def starts(self) -> Iterable[Point]:
        """The first points of each way to fail; the others follow them."""

    def examine(self, point: Point) -> Found:
        """What is found at the point; in a process for this point only."""

    def force(self, key: str) -> Found:
        """What is found when a fallible call is made to fail; in a process for this only."""


@dataclass
class Swept:
    """What became of a case: how many points it has, and what was wrong at which."""

    case: str
    function: str
    single: int = 0  # points of single failures
    lasting: int = 0  # and of lasting ones
    complaints: list[str] = field(default_factory=list)
    deaths: list[Death] = field(default_factory=list)  # each of them is a complaint, too


def sweep(library: Library, case: AnyCase, orderly: bool, single: bool = False) -> Swept:
    """All points of a case, or those of single failures alone.

    The case stays set up in this process: the process is for this case only.
    """
    swept = Swept(str(case), case.function)
    with tempfile.TemporaryFile() as errors, ExitStack() as ending:
        children = Children(errors, orderly)
        library.tell_deaths()
        subject: Subject
        if isinstance(case, ImportCase):
            subject = Import(library, case, children)
        else:
            arranged = case if isinstance(case, Arranged) else Arranged(case)
            subject = CallSubject(library, arranged, ending.enter_context(Simulator(live=False)))
        for start in subject.starts():
            if not (single and start.lasting):
                _sweep(subject, start, children, swept)
        needed = swept.single > 0 and (single or swept.lasting > 0)
        if needed == (swept.case in NEEDING_NO_MEMORY):
            swept.complaints.append(f"{'an' if needed else 'no'} allocation was made to fail")
        for row in FORCED:
            if row.case == str(case) and library.records:
                _force(subject, library.key(row.call), children, swept)
    return swept


def _sweep(subject: Subject, point: Point, children: Children, swept: Swept) -> None:
    """Goes on from a point until no allocation is left to fail."""
    deaths = 0
    found = Found(True)
    while found.fired and deaths < DEATHS:
        try:
            found = children.result(subject.examine, point)
        except DiedError as died:
            found = Found(True, (str(died),))
            swept.deaths.append(died.death)
            deaths += 1
        swept.complaints += [f"{point}: {complaint}" for complaint in found.complaints]
        swept.lasting += found.fired and point.lasting
        swept.single += found.fired and not point.lasting
        point = point.next
    if found.fired:
        swept.complaints.append(f"{point} and what follows: not swept after {DEATHS} deaths")


def _force(subject: Subject, key: str, children: Children, swept: Swept) -> None:
    try:
        complaints = children.result(subject.force, key).complaints
    except DiedError as died:
        complaints = (str(died),)
        swept.deaths.append(died.death)
    swept.complaints += [f"{key} made to fail: {complaint}" for complaint in complaints]
