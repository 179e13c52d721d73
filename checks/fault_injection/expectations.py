"""How a call ends, and how it may end if an allocation fails.

A failed allocation either has no visible effect or raises MemoryError with one traceback entry of
the function. If it was for another exception's message, that exception is raised without a message.
`alternatives` lists the remaining outcomes and where the allocation must fail for each.
"""

from __future__ import annotations

import sys
from collections.abc import Iterator, Mapping
from types import FrameType, TracebackType
from typing import Any, Callable, NamedTuple

from checks.fault_injection.libfaults import NO_SITE, InjectionPoint, Report
from checks.fault_injection.process_cases import PerCall
from tests.support import reference
from tests.support.assertions import FILE, MODULE, with_types
from tests.support.call_cases import DELETED, CallCase
from tests.support.doubles import NullLogger

OUT_OF_MEMORY = ("MemoryError", "")
NO_COOKIE_BUFFER = (
    ("CFunctionError", "PyMem_Malloc"),
    ("error: Could not allocate memory for decreypt_cookie decrypted",),
)
NO_SECRET = ("UnboundLocalError", "local variable 'secret' referenced before assignment")
NO_OUTPUT = ("CFunctionError", "get_cli_command_output's result is null.")
SHARED_SESSIONS = reference.get_bfd_neighbor("")  # the default of its `list_bfd`
CATCHING = ("get_bfd_neighbor", "list_bfd_neighbor")  # functions that catch exceptions
RUNNING_COMMANDS = (
    "get_cli_command_output", "get_routing_table_result", "get_system_arp_result", *CATCHING
)  # fmt: skip

# Ends of the key of the call site at which an allocation fails.
ANYWHERE = ("",)
COMMAND_RUNNER = (NO_SITE, ":PyObject_CallOneArg(function.get(), argument)")
JSON_SERIALIZER = (":json_object_to_json_string(object)",)
COOKIE_BUFFER = (":PyMem_Malloc(static_cast<size_t>(decrypted_length))",)

Observed = tuple[tuple[str, Any], tuple[str, ...]]


class Outcome(NamedTuple):
    """How a call ended: a value or an exception with its message, and what it logged.

    `entries` are the functions of the module's traceback entries, outermost first.
    """

    ended: tuple[str, Any]
    returned: bool
    logged: tuple[str, ...] = ()
    entries: tuple[str, ...] = ()

    @property
    def observed(self) -> Observed:
        """The part that a caller compares."""
        return self.ended, self.logged


def run(
    call: Callable[[], object],
    logged: list[str] | None = None,
    exceptions: list[BaseException] | None = None,
) -> Outcome:
    """Run a call and return its outcome; append an exception that it raises to `exceptions`."""
    lines = [] if logged is None else logged
    lines.clear()
    try:
        ended: Any = with_types(call())
    except BaseException as error:
        if exceptions is not None:
            exceptions.append(error)
        ended = type(error).__qualname__, str(error)
        return Outcome(ended, False, tuple(lines), tuple(_entries(error.__traceback__)))
    return Outcome(ended, True, tuple(lines))


def _entries(traceback: TracebackType | None) -> Iterator[str]:
    while traceback is not None:
        code = traceback.tb_frame.f_code
        if code.co_filename == FILE:
            yield code.co_name
        traceback = traceback.tb_next


class Log:
    """A logger that stores its lines; `exempt` wraps its methods."""

    def __init__(self, exempt: Callable[[Any], Any] = lambda function: function) -> None:
        self.lines: list[str] = []
        self.debug = exempt(self.lines.append)
        self.error = exempt(lambda text: self.lines.append(f"error: {text}"))


def fresh_arguments(values: Any) -> Any:
    """Copy the arguments' dictionaries, which a call may change."""
    if isinstance(values, Mapping):
        return {name: _fresh(value) for name, value in values.items()}
    return tuple(_fresh(value) for value in values)


def _fresh(value: Any) -> Any:
    if isinstance(value, PerCall):
        return value.make()
    return {**value} if type(value) is dict else value


class Alternative(NamedTuple):
    """An outcome other than MemoryError, and where the allocation must fail for it."""

    observed: Observed
    sites: tuple[str, ...] = ANYWHERE


class Expectations:
    """The outcomes that one case may have."""

    def __init__(self, case: CallCase, baseline: Outcome) -> None:
        self.case, self.baseline = case, baseline
        self._alternatives = list(alternatives(case))
        self._without_message = None if baseline.returned else (baseline.ended[0], "")
        # The interpreter rejects some arguments before it calls the module.
        self._entered = baseline.returned or bool(baseline.entries)

    def check(self, outcome: Outcome, point: InjectionPoint, report: Report) -> Iterator[str]:
        """Yield a finding unless the outcome is expected."""
        if outcome.observed == self.baseline.observed:
            return
        if outcome.ended == OUT_OF_MEMORY:
            # After a one-shot failure there is memory for the traceback entry.
            entries = outcome.entries.count(f"{MODULE}.{self.case.function}")
            required = self._entered and not point.persistent
            if entries > 1 or (required and not entries):
                yield f"left {entries} traceback entries"
            return
        # json-c ignores allocation failures while it serializes: the text has gaps.
        gaps = outcome.returned or outcome.ended[0] == "JSONDecodeError"
        expected = (
            (gaps and point.allocator == "json-c" and report.site.endswith(JSON_SERIALIZER))
            or any(
                outcome.observed == row.observed and report.site.endswith(row.sites)
                for row in self._alternatives
            )
            or outcome.ended == self._without_message
        )
        if not expected:
            yield (
                f"ended with {outcome.observed}, expected {self.baseline.observed} or MemoryError; "
                f"the allocation failed in {report.site}"
            )


def alternatives(case: CallCase) -> Iterator[Alternative]:
    """Yield the outcomes of a failed allocation other than MemoryError."""
    if case.function == "encrypt_cookie":
        # The native service runs out of memory and cannot report it.
        yield Alternative((("bytes", b""), ()), (NO_SITE,))
    if case.function == "decrypt_cookie":
        yield Alternative(NO_COOKIE_BUFFER, COOKIE_BUFFER)
    if case.suppresses:
        # The file's __exit__ suppresses any exception.
        yield Alternative((NO_SECRET, ()))
        yield Alternative(((NO_SECRET[0], ""), ()))
    if case.function in RUNNING_COMMANDS:
        yield Alternative((NO_OUTPUT, ()), COMMAND_RUNNER)  # as above
    if case.function in CATCHING:
        yield from map(Alternative, run_reference(case, MemoryError()))
        for observed in run_reference(case, reference.CFunctionError(NO_OUTPUT[1])):
            yield Alternative(observed, COMMAND_RUNNER)


def run_reference(case: CallCase, error: Exception) -> Iterator[Observed]:
    """Run the reference model once for each line, raising the error there."""
    log = Log()
    reference._logger = log
    for name, value in case.patched.items():
        if value is DELETED:
            vars(reference).pop(name, None)
        elif not isinstance(value, NullLogger):
            setattr(reference, name, value)
    output = case.cli.encode() if isinstance(case.cli, str) else case.cli
    reference.run = lambda command: output  # type: ignore[assignment,return-value]
    function = getattr(reference, case.function)

    def call() -> object:
        SHARED_SESSIONS.clear()
        return function(*fresh_arguments(case.args), **fresh_arguments(case.kwargs))

    raiser = LineRaiser(error)
    while raiser.line >= raiser.raise_at:
        raiser.line, raiser.raise_at = 0, raiser.raise_at + 1
        sys.settrace(raiser.trace_call)
        try:
            outcome = run(call, log.lines)
        finally:
            sys.settrace(None)
        yield outcome.observed


class LineRaiser:
    """A trace function that raises an error at the nth line of the functions in `CATCHING`."""

    codes = tuple(getattr(reference, name).__code__ for name in CATCHING)

    def __init__(self, error: Exception) -> None:
        self.error = error
        self.raise_at = self.line = 0

    def trace_call(self, frame: FrameType, event: str, argument: Any) -> Callable[..., Any] | None:
        """Trace the lines of the functions."""
        return self.trace_line if frame.f_code in self.codes else None

    def trace_line(self, frame: FrameType, event: str, argument: Any) -> Callable[..., Any]:
        """Count the lines and raise the error."""
        if event == "line":
            self.line += 1
            if self.line == self.raise_at:
                raise self.error
        return self.trace_line
