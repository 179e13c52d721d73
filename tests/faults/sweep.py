"""The points of a case: each allocation that it makes, and a child process in which it fails."""

from __future__ import annotations

import tempfile
from collections.abc import Iterable
from contextlib import ExitStack
from dataclasses import dataclass, field
from typing import Protocol, Union

from appliance import Appliance
from tests.cases import Case
from tests.faults.arranged import Arranged
from tests.faults.call import Call
from tests.faults.children import Children, DiedError
from tests.faults.forced import FORCED
from tests.faults.found import Found
from tests.faults.imports import Import, ImportCase
from tests.faults.library import Library, Point

AnyCase = Union[Case, Arranged, ImportCase]
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
    points: int = 0
    complaints: list[str] = field(default_factory=list)


def sweep(library: Library, case: AnyCase, orderly: bool) -> Swept:
    """All points of a case. It stays set up in this process: the process is for this case only."""
    swept = Swept(str(case), case.function)
    with tempfile.TemporaryFile() as errors, ExitStack() as ending:
        children = Children(errors, orderly)
        subject: Subject
        if isinstance(case, ImportCase):
            subject = Import(library, case, children)
        else:
            arranged = case if isinstance(case, Arranged) else Arranged(case)
            subject = Call(library, arranged, ending.enter_context(Appliance(live=False)))
        for start in subject.starts():
            _sweep(subject, start, children, swept)
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
        except DiedError as death:
            found = Found(True, (str(death),))
            deaths += 1
        swept.complaints += [f"{point}: {complaint}" for complaint in found.complaints]
        swept.points += found.fired
        point = point.next


def _force(subject: Subject, key: str, children: Children, swept: Swept) -> None:
    try:
        complaints = children.result(subject.force, key).complaints
    except DiedError as death:
        complaints = (str(death),)
    swept.complaints += [f"{key} made to fail: {complaint}" for complaint in complaints]
