"""What may come out of a call whose memory fails, and what may not.

Either nothing of it is seen (the call ends as ever: memory failed where it does not matter, such as
for a traceback entry), or MemoryError is raised. Where the text of another exception was being
made, the interpreter raises that exception without a text. Some functions do more than pass the
failure on: see `others`.
"""

from __future__ import annotations

import sys
from collections.abc import Callable, Iterator
from types import FrameType
from typing import Any, NamedTuple

from checks.fault_injection.case_setup import Log, fresh_values
from checks.fault_injection.libfaults import Point, Report
from checks.fault_injection.results import OF_MEMORY, Outcome, Same, outcome
from tests.support import reference
from tests.support.assertions import MODULE
from tests.support.call_cases import DELETED, CallCase
from tests.support.doubles import NullLogger

NO_COOKIE_BUFFER = (
    ("CFunctionError", "PyMem_Malloc"),
    ("error: Could not allocate memory for decreypt_cookie decrypted",),
)
NO_SECRET = ("UnboundLocalError", "local variable 'secret' referenced before assignment")
NO_OUTPUT = ("CFunctionError", "get_cli_command_output's result is null.")
CATCHING = ("get_bfd_neighbor", "list_bfd_neighbor")  # functions that catch exceptions and go on
SHARED = reference.get_bfd_neighbor("")  # the twin's one default of `list_bfd`
RUNNING_COMMANDS = (
    "get_cli_command_output", "get_routing_table_result", "get_system_arp_result", *CATCHING
)  # fmt: skip

# Where memory failed: the end of the fallible call's key.
ANYWHERE = ("",)
IN_NO_CALL = "in no call"  # in a native service, or in the interpreter before the function's body
RUNNING = (IN_NO_CALL, ":PyObject_CallOneArg(function.get(), argument)")
WRITING_JSON = (":json_object_to_json_string(object)",)
MAKING_THE_BUFFER = (":PyMem_Malloc(static_cast<size_t>(decrypted_length))",)


class Other(NamedTuple):
    """An outcome of failing memory that is not MemoryError, and where memory fails for it."""

    same: Same
    where: tuple[str, ...] = ANYWHERE


class Judge:
    """Knows how one case ends when nothing fails, and what else it may end with."""

    def __init__(self, case: CallCase, reference: Outcome) -> None:
        self.case, self.reference = case, reference
        self.others = list(others(case))
        self.unworded = None if reference.returned else (reference.ended[0], "")
        # The interpreter itself refuses some arguments, before the module knows of the call.
        self.entered = reference.returned or bool(reference.entries)

    def complaint(self, found: Outcome, point: Point, report: Report) -> str | None:
        """What is wrong with an outcome, if anything is."""
        if found.same == self.reference.same:
            return None
        if found.ended == OF_MEMORY:
            return self._entry_complaint(found, point.lasting)
        site = report.site or IN_NO_CALL
        # json-c does not look whether its writing succeeds: the text has gaps.
        gaps = found.returned or found.ended[0] == "JSONDecodeError"
        if gaps and point.allocator == "json-c" and site.endswith(WRITING_JSON):
            return None
        if any(found.same == other.same and site.endswith(other.where) for other in self.others):
            return None
        if found.ended == self.unworded:
            return None
        wanted = f"not with {self.reference.same} or MemoryError"
        return f"ended with {found.same}, {wanted}, memory failing in {site}"

    def _entry_complaint(self, found: Outcome, lasting: bool) -> str | None:
        # With one failure only, there was memory for the entry.
        entries = found.entries.count(f"{MODULE}.{self.case.function}")
        missing = not entries and not lasting and self.entered
        return f"left {entries} traceback entries" if missing or entries > 1 else None


def others(case: CallCase) -> Iterator[Other]:
    """Outcomes of failing memory other than MemoryError."""
    if case.function == "encrypt_cookie":
        # The appliance had no memory, and may not say so.
        yield Other((("bytes", b""), ()), (IN_NO_CALL,))
    if case.function == "decrypt_cookie":
        yield Other(NO_COOKIE_BUFFER, MAKING_THE_BUFFER)
    if case.function == "get_token" and "swallowed" in case.label:
        # The file swallowed what failed, whatever it was.
        yield Other((NO_SECRET, ()))
        yield Other(((NO_SECRET[0], ""), ()))
    if case.function in RUNNING_COMMANDS:
        yield Other((NO_OUTPUT, ()), RUNNING)  # the appliance had no memory for its text
    if case.function in CATCHING:
        yield from map(Other, caught(case, MemoryError()))
        for same in caught(case, reference.CFunctionError(NO_OUTPUT[1])):
            yield Other(same, RUNNING)


def caught(case: CallCase, error: Exception) -> Iterator[Same]:
    """How the twin ends if each of its lines in turn raises the error."""
    log = Log()
    reference._logger = log
    for name, value in case.patched.items():
        if value is DELETED:
            vars(reference).pop(name, None)
        elif not isinstance(value, NullLogger):
            setattr(reference, name, value)
    text = case.cli.encode() if isinstance(case.cli, str) else case.cli
    reference.run = lambda command: text  # type: ignore[assignment,return-value]
    at = 1
    while True:
        raiser = Raiser(at, error)
        sys.settrace(raiser.enters)
        try:
            ended = outcome(lambda: called(case), log.lines)
        finally:
            sys.settrace(None)
        yield ended.same
        if raiser.line < at:
            return
        at += 1


def called(case: CallCase) -> object:
    """The case's call of the twin, on dictionaries of its own."""
    SHARED.clear()
    return getattr(reference, case.function)(*fresh_values(case.args), **fresh_values(case.kwargs))


class Raiser:
    """A trace function that raises an error at one line of the functions that catch."""

    codes = tuple(getattr(reference, name).__code__ for name in CATCHING)

    def __init__(self, at: int, error: Exception) -> None:
        self.at, self.error = at, error
        self.line = 0

    def enters(self, frame: FrameType, event: str, argument: Any) -> Callable[..., Any] | None:
        """The trace function of a new frame."""
        return self.runs if frame.f_code in self.codes else None

    def runs(self, frame: FrameType, event: str, argument: Any) -> Callable[..., Any]:
        """The trace function of a line."""
        if event == "line":
            self.line += 1
            if self.line == self.at:
                raise self.error
        return self.runs
