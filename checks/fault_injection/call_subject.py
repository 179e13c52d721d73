"""A function call as the subject of a sweep.

Injection is suspended in everything that does not belong to the module: siblings, libraries, files
and the objects of the case.
"""

from __future__ import annotations

import gc
import sys
from array import array
from collections.abc import Iterator
from contextlib import suppress
from pathlib import Path
from types import FunctionType, SimpleNamespace
from typing import Any

from checks.fault_injection.expectations import (
    OUT_OF_MEMORY,
    Expectations,
    Log,
    Outcome,
    fresh_arguments,
    run,
)
from checks.fault_injection.libfaults import NO_FAILURE, FaultInjector, InjectionPoint
from checks.fault_injection.process_cases import ProcessCase
from tests.support.call_cases import DELETED, CallCase
from tests.support.doubles import FailNth, NullLogger
from tests.support.query_cases import QUERY_CASES
from tests.support.refcounts import tracked_objects
from veldarin_simulator import LiveObjects, Simulator

REPEATS = 4  # of a call, twice, to measure leaks
# Globals of the module that come from other modules and are called.
IMPORTED_CALLABLES = ("text_", "bytes_", "serial_number_ascii", "CFunctionError", "open")
QUERIES = ("list_switch", "list_system", "switch_", "get_system_sniffer", "capture_")

NO_LIVE_OBJECTS = LiveObjects(json_objects=0, text_buffers=0)
# Without memory for the result these two functions keep the native buffer, on purpose.
BUFFER_KEPT = ("PyBytes_FromString(encrypted)", "PyBytes_FromString(decrypted)")
KEPT_BLOCK = ["+1 memory blocks"]


class ExemptPath:
    """A path whose methods are exempt."""

    def __init__(self, injector: FaultInjector, path: Any) -> None:
        for name in ("is_file", "absolute"):
            if hasattr(path, name):
                setattr(self, name, injector.exempt(getattr(path, name)))


class CaseSetup:
    """The preparation of a case in this process, which cannot be undone."""

    def __init__(
        self, injector: FaultInjector, simulator: Simulator, process_case: ProcessCase
    ) -> None:
        self.injector, self.simulator, self.case = injector, simulator, process_case.case
        self.injections = 0
        self._handling = process_case.handling
        self._module: Any = simulator.module
        self._steps = [FailNth(self.case.create), FailNth(self.case.release)]
        self._function = getattr(self._module, self.case.function)
        self._log = Log(injector.exempt)
        # Without sessions in the output, the function returns the default of `list_bfd`.
        simulator.set_reply("get_cli_cmd_output", "")
        self._shared_sessions: dict[str, Any] = self._module.get_bfd_neighbor("")
        self._set_replies()
        self._bind_globals()
        process_case.prepare(self._module)
        case = self.case
        arguments = [*case.args, *case.kwargs, *case.kwargs.values(), *case.patched.values()]
        self._tracked = tracked_objects(self._module, arguments)

    def _set_replies(self) -> None:
        case, simulator = self.case, self.simulator
        simulator.set_reply("get_cli_cmd_output", case.cli)
        simulator.set_reply("cookieval_wrap", b"wrapped")
        simulator.set_reply("cookieval_unwrap", None)  # returns its argument
        for service in ("aps_get_new_cookie_id", "__get_aps_hash"):
            simulator.set_reply(service, 0xFFFFFFFF)  # not one of the preallocated integers
        for row in QUERY_CASES:
            if row.native:
                simulator.set_reply(row.native, case.reply)
        for step, name in zip(self._steps, ("on_create", "on_release")):
            if step.fails_at is not None:
                setattr(simulator, name, step)

    def _bind_globals(self) -> None:
        exempt, module, patched = self.injector.exempt, self._module, self.case.patched
        values: dict[str, Any] = {
            **{name: exempt(getattr(module, name, open)) for name in IMPORTED_CALLABLES},
            "urandom": exempt(lambda size: bytes(range(size))),
            "json": SimpleNamespace(loads=exempt(module.json.loads)),
            "copy": SimpleNamespace(deepcopy=exempt(module.copy.deepcopy)),
            "_logger": self._log,
        }
        for name, value in patched.items():
            if not isinstance(value, NullLogger):
                values[name] = exempt(value) if isinstance(value, FunctionType) else value
        path = patched.get("Path", Path)
        if isinstance(path, type):
            values["Path"] = exempt(lambda text: ExemptPath(self.injector, path(text)))
        for name, value in values.items():
            if value is DELETED:
                delattr(module, name)
            else:
                setattr(module, name, value)

    def _call(self, point: InjectionPoint | None) -> Any:
        case = self.case
        arguments = fresh_arguments(case.args)
        keywords = fresh_arguments(case.kwargs) if case.kwargs else None
        self.injections += point is not None
        call = (self._function, arguments, keywords, point or NO_FAILURE)
        if not self._handling:
            return self.injector.call(*call)
        try:
            raise LookupError("is being handled")
        except LookupError:
            return self.injector.call(*call)

    def _reset(self) -> None:
        for step in self._steps:
            step.taken = 0
        self._log.lines.clear()
        self._shared_sessions.clear()
        if self.case.function == "encrypt_cookie":
            self._function(b"")  # the native service reserves its out-of-memory reply
        if self.case.before is not None:
            self.case.before(self.simulator)

    def run(
        self, point: InjectionPoint | None = None, exceptions: list[BaseException] | None = None
    ) -> Outcome:
        """Call the function once, with a failure injected at the point if there is one."""
        self._reset()
        return run(lambda: self._call(point), self._log.lines, exceptions)

    def find_leaks(self, point: InjectionPoint) -> list[str]:
        """Repeat the call and describe what grows or shrinks each time."""
        blocks = array("q", [0, 0])
        refcounts = array("q")
        for i in range(-1, 2 * REPEATS):
            self._reset()
            with suppress(BaseException):
                self._call(point)
            gc.collect()
            if i < 0:
                refcounts.extend(map(sys.getrefcount, self._tracked))
            else:
                blocks[i // REPEATS] = self.injector.live_blocks()
        leaks = []
        # Rounding drops what the interpreter allocates only once.
        if per_call := round((blocks[1] - blocks[0]) / REPEATS):
            leaks.append(f"{per_call:+} memory blocks")
        for item, before in zip(self._tracked, refcounts):
            if per_call := round((sys.getrefcount(item) - before) / (2 * REPEATS)):
                leaks.append(f"{per_call:+} references to {str(item)[:60]!r}")
        return leaks


class CallSubject:
    """A case prepared in this process, which cannot be used for another one."""

    def __init__(
        self, injector: FaultInjector, process_case: ProcessCase, simulator: Simulator
    ) -> None:
        self.case: CallCase = process_case.case
        injector.exempt_json_objects()
        self._setup = CaseSetup(injector, simulator, process_case)
        # The interpreter reuses the frame of a traceback entry, which then needs no memory. Keeping
        # the exceptions keeps the frames in use.
        self._exceptions: list[BaseException] = []
        self._expectations = Expectations(self.case, self._setup.run(exceptions=self._exceptions))
        gc.collect()
        gc.freeze()  # makes later collections fast

    def first_points(self) -> Iterator[InjectionPoint]:
        """Yield the first allocation of every allocator in both failure modes."""
        for persistent in (False, True):
            yield InjectionPoint("interpreter", 1, persistent)
            if self.case.function.startswith(QUERIES):
                yield InjectionPoint("json-c", 1, persistent)

    def inject(self, point: InjectionPoint) -> tuple[bool, list[str]]:
        """Run the case with an injected failure, repeat it to find leaks, then run it without.

        Returns:
            Whether an allocation failed, and the findings.
        """
        setup = self._setup
        outcome = setup.run(point)
        report = setup.injector.report()
        findings = [*self._expectations.check(outcome, point, report)]
        buffer_kept = report.site.endswith(BUFFER_KEPT)
        expected = KEPT_BLOCK if buffer_kept else []
        # A second try, because the interpreter allocates some things only once.
        if setup.find_leaks(point) != expected and (leaks := setup.find_leaks(point)) != expected:
            findings.append(f"leaked: {', '.join(leaks) or 'nothing'}")
        findings += self._check_again()
        gc.collect()
        live = setup.simulator.live_objects
        if self.case.function == "encrypt_cookie" and buffer_kept:
            live = live._replace(text_buffers=live.text_buffers - setup.injections)
        if live != NO_LIVE_OBJECTS:
            findings.append(f"still alive: {live}")
        return report.failures > 0, findings

    def force(self, key: str) -> list[str]:
        """Run the case with one fallible call forced to fail; return the findings."""
        setup = self._setup
        setup.injector.force(key)
        outcome = setup.run()
        leaks = setup.find_leaks(NO_FAILURE)
        setup.injector.force(None)
        findings = [] if outcome.ended == OUT_OF_MEMORY else [f"ended with {outcome.observed}"]
        return [*findings, *(f"leaked: {leak}" for leak in leaks), *self._check_again()]

    def _check_again(self) -> Iterator[str]:
        outcome = self._setup.run()
        if outcome.observed != self._expectations.baseline.observed:
            yield f"afterwards the same call ended with {outcome.observed}"
