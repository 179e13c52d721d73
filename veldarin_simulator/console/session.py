"""The session: the only simulator of the process, and the scenario that the console edits."""

from __future__ import annotations

import hashlib
import threading
import time
from collections.abc import Collection, Iterator
from contextlib import contextmanager, suppress
from dataclasses import dataclass
from typing import Any

from veldarin_simulator import (
    NativeCall,
    Scenario,
    ScenarioError,
    Simulator,
    example_arguments,
    module_log,
    parse_capture,
)
from veldarin_simulator.console import archive, replies, serialization
from veldarin_simulator.console.arguments import encode_utf8
from veldarin_simulator.console.errors import ApiError
from veldarin_simulator.console.scenario_store import ScenarioStore, check_size
from veldarin_simulator.scenario import CLI_SERVICE
from veldarin_simulator.stub import Function, functions

# Waiting requests occupy threads of the server: the others serve requests that need not wait.
MAX_WAITING = 8
MAX_WAIT = 10.0
_CLOSE_WAIT = 0.1


@dataclass(frozen=True)
class CallResult:
    """The outcome of a call; either `result` or `exception` is set, encoded for JSON."""

    result: dict[str, Any] | None
    exception: dict[str, Any] | None
    call_log: list[NativeCall]
    log: list[module_log.LogRecord]
    seconds: float
    simulator_error: str | None  # raised by the simulator itself, not by the module


class Session:
    """A simulator that replies from this machine's state unless its scenario has the reply.

    Close it, or use it in a `with` block. Calls and changes wait for each other, because they share
    one simulator and one call log; reading waits for nothing.

    Args:
        store: The scenarios. Its initial scenario is loaded.

    Raises:
        ApiError: The initial scenario cannot be read.
        ScenarioError: The initial scenario is invalid.
        RuntimeError: Nothing is built, or the process has another simulator.

    Attributes:
        functions: The functions of the module.
        revision: Increases with every change.
    """

    def __init__(self, store: ScenarioStore) -> None:
        self.functions: dict[str, Function] = functions()
        self.revision = 0
        self._store = store
        self._lock = threading.Lock()
        self._waiting = threading.BoundedSemaphore(MAX_WAITING)
        self._running: tuple[str, float] | None = None
        self._examples: tuple[int, dict[str, Any]] = -1, {}
        self._loaded = None if store.initial is None else store.initial.name
        # The loaded scenario as it was on disk.
        self._saved = Scenario() if self._loaded is None else Scenario(store.read(self._loaded))
        self._simulator: Simulator | None = Simulator(self._saved)
        self._simulator.record_replies()

    def __enter__(self) -> Session:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Close the simulator and discard unsaved edits; a running call is not waited for."""
        simulator, self._simulator = self._simulator, None
        if simulator is None:
            return
        if self._lock.acquire(timeout=_CLOSE_WAIT):
            simulator.close()
            self._lock.release()
        else:
            simulator.remove_files()

    @contextmanager
    def simulator(self, activity: str = "") -> Iterator[Simulator]:
        """Wait for the running call and yield the simulator to this thread alone.

        Args:
            activity: The name to report while the block runs.

        Raises:
            ApiError: The wait is too long, or the session is closed.
        """
        self._wait()
        try:
            self._running = activity, time.monotonic()
            yield self._open_simulator()
        finally:
            self._running = None
            self._lock.release()

    def _wait(self) -> None:
        if self._waiting.acquire(blocking=False):
            try:
                if self._lock.acquire(timeout=MAX_WAIT):
                    return
            finally:
                self._waiting.release()
        running = self.running() or {"function": "another call", "seconds": 0}
        detail = f"{running['function']} has been running for {running['seconds']} seconds"
        raise ApiError("busy", detail, running=running)

    def _open_simulator(self) -> Simulator:
        if self._simulator is None:
            raise ApiError("closed", "the console is shutting down")
        return self._simulator

    def running(self) -> dict[str, Any] | None:
        """Return the function that runs and for how many seconds, or None."""
        running = self._running
        if running is None or not running[0]:
            return None
        return {"function": running[0], "seconds": round(time.monotonic() - running[1], 1)}

    def status(self) -> dict[str, Any]:
        """Return what a page polls."""
        modified = self._open_simulator().scenario != self._saved
        status = {"revision": self.revision, "running": self.running()}
        return {**status, "scenario": self._loaded, "modified": modified}

    def call(self, name: str, positional: list[Any], keywords: dict[str, Any]) -> CallResult:
        """Call a function of the module with any arguments."""
        with self.simulator(name) as simulator, module_log.capture() as log:
            function = getattr(simulator.module, name)
            result = exception = None
            _raised(simulator)  # left by an earlier parse
            simulator.clear_calls()
            started = time.perf_counter()
            try:
                returned = function(*positional, **keywords)
            except Exception as error:
                seconds = time.perf_counter() - started
                exception = serialization.encode_exception(error, __file__)
            else:
                seconds = time.perf_counter() - started
                # Encode before the next call, which may change an object that calls share.
                result = serialization.encode_result(returned)
            return CallResult(
                result, exception, simulator.call_log, log, seconds, _raised(simulator)
            )

    def parse(
        self, kind: str, text: bytes
    ) -> tuple[parse_capture.ParseResult, dict[int, list[parse_capture.Path]] | None]:
        """Run a parser on command output.

        Returns:
            The result, and for each line the paths of the values that came from it. The second is
            None if the parser fails or tracing the lines takes too long.
        """
        parser = parse_capture.PARSERS[kind]
        with self.simulator(f"parse {kind}") as simulator:
            parsed = parse_capture.parse(simulator, parser, text)
            if parsed.error is not None:
                return parsed, None
            return parsed, parse_capture.line_origins(simulator, parser, text, parsed.result)

    def example_calls(self) -> dict[str, Any]:
        """Return function name to positional and keyword arguments that fit this machine."""
        if self._examples[0] != self.revision and self._lock.acquire(blocking=False):
            try:
                simulator = self._open_simulator()
                found = {}
                for name, function in self.functions.items():
                    with suppress(Exception):
                        found[name] = example_arguments.example_call(simulator, function)
                self._examples = self.revision, found
            finally:
                self._lock.release()
        return self._examples[1]

    # Scenarios

    def scenarios(self) -> dict[str, Any]:
        """Return the names of the scenarios and the state of the loaded one."""
        loaded = self._loaded
        return {
            "loaded": loaded,
            "directory": None if loaded is None else str(self._store.path(loaded)),
            "store": str(self._store.directory),
            "modified": self._open_simulator().scenario != self._saved,
            "scenarios": self._store.names(),
        }

    def current(self) -> dict[str, Any]:
        """Return the files of the current scenario, and those that a save would change."""
        current, saved, loaded = self._open_simulator().scenario, self._saved, self._loaded
        changed = [file for file in {*current, *saved} if current.get(file) != saved.get(file)]
        return {
            "name": loaded,
            "directory": None if loaded is None else str(self._store.path(loaded)),
            "modified": bool(changed),
            "changed": sorted(changed),
            "files": _describe(current),
        }

    def scenario(self, name: str) -> dict[str, Any]:
        """Return the files of a scenario on disk."""
        files = self._store.read(name)
        directory, fixed = str(self._store.path(name)), self._store.is_fixed(name)
        return {"name": name, "directory": directory, "fixed": fixed, "files": _describe(files)}

    def load(self, name: str | None) -> None:
        """Load a scenario, or none, and discard unsaved edits.

        Raises:
            ApiError: The scenario does not exist, cannot be read or is invalid.
        """
        with self._changing() as simulator:
            scenario = Scenario() if name is None else Scenario(self._store.read(name))
            _use_scenario(simulator, scenario)
            self._loaded, self._saved = name, scenario

    def save(self, name: str, overwrite: Collection[str] = ()) -> None:
        """Save the current scenario under a name, which becomes the loaded one.

        Raises:
            ApiError: Another scenario has the name, files of the loaded one changed on disk and are
                not to be overwritten, or the scenario cannot be written. Nothing is written.
        """
        with self._changing() as simulator:
            if name == self._loaded:
                self._store.save(name, simulator.scenario, self._saved, overwrite)
            else:
                self._store.create(name, simulator.scenario)
            self._loaded, self._saved = name, simulator.scenario

    def rename(self, name: str, to: str) -> None:
        """Rename a scenario.

        Raises:
            ApiError: Another scenario has the name, or the scenario is the command line's.
        """
        with self._changing():
            self._store.rename(name, to)
            if name == self._loaded:
                self._loaded = to

    def duplicate(self, name: str, to: str) -> None:
        """Copy the replies of a scenario as they are on disk."""
        with self._changing():
            self._store.create(to, self._store.read(name))

    def delete(self, name: str) -> None:
        """Move a scenario into the trash.

        Raises:
            ApiError: It is loaded, or the command line's.
        """
        with self._changing():
            if name == self._loaded:
                raise ApiError("scenario-in-use", f"{name} is loaded: load another one first")
            self._store.delete(name)

    def export(self, name: str) -> bytes:
        """Return a scenario on disk as an archive."""
        return archive.pack(self._store.read(name))

    def import_(self, name: str, content: bytes) -> None:
        """Create a scenario from an archive."""
        with self._changing():
            self._store.create(name, Scenario(archive.unpack(content)))

    @contextmanager
    def _changing(self) -> Iterator[Simulator]:
        """Yield the simulator, count the change, and raise a `ScenarioError` as an `ApiError`."""
        with self.simulator() as simulator:
            try:
                yield simulator
            except ScenarioError as error:
                place = {"file": error.path.as_posix(), "line": error.line, "column": error.column}
                raise ApiError("invalid-reply", error.problem, **place) from error
            self.revision += 1

    # Replies

    def replies(self) -> list[dict[str, Any]]:
        """Return every service and command, its source and whether the scenario overrides it."""
        simulator = self._open_simulator()
        scenario, saved, listed = simulator.scenario, self._saved, []
        for name in replies.names(scenario):
            file, command = replies.file_name(name, scenario), replies.is_command(name)
            listed.append(
                {
                    "name": name,
                    "command": command,
                    "file": file,
                    "overridden": file in scenario,
                    "modified": scenario.get(file) != saved.get(file),
                    "source": None if command else simulator.source(replies.service(name)),
                }
            )
        return listed

    def reply(self, name: str) -> dict[str, Any]:
        """Return the text of a reply, the scenario's or the default.

        Raises:
            ApiError: The name is invalid, or the text of the reply cannot be shown.
        """
        simulator = self._open_simulator()
        file = replies.file_name(name, simulator.scenario)
        override = simulator.scenario.get(file)
        try:
            text = replies.default_text(name, simulator) if override is None else override.decode()
        except UnicodeDecodeError as error:
            detail = f"{file} is not UTF-8: edit the file itself"
            raise ApiError("reply-unreadable", detail, file=file) from error
        except Exception as error:
            detail = f"{name}: {type(error).__name__}: {error}"
            raise ApiError("reply-unreadable", detail) from error
        head = {"name": name, "overridden": override is not None, "file": file}
        return {**head, "text": text, "version": _version(override)}

    def set_reply(self, name: str, text: str | None, *base: str | None) -> None:
        """Override a reply from the next call on; None removes the override.

        Args:
            name: The name of the reply.
            text: The text.
            base: The version that the text is based on, if that is to be checked.

        Raises:
            ApiError: The service cannot return the text, or the version is another. Nothing
                changes.
        """
        with self._changing() as simulator:
            file = replies.file_name(name, simulator.scenario)
            version = _version(simulator.scenario.get(file))
            if base and base[0] != version:
                detail = f"{file} has changed meanwhile: read it again"
                raise ApiError("reply-changed", detail, file=file, version=version)
            try:
                content = None if text is None else encode_utf8(text)
            except ValueError as error:
                raise ApiError("invalid-reply", str(error), file=file) from error
            scenario = simulator.scenario.with_reply(file, content)
            check_size(scenario)
            _use_scenario(simulator, scenario)


def _describe(files: Any) -> list[dict[str, Any]]:
    return [{"name": name, "bytes": len(text)} for name, text in files.items()]


def _version(text: bytes | None) -> str | None:
    return None if text is None else hashlib.sha256(text).hexdigest()[:16]


def _raised(simulator: Simulator) -> str | None:
    """Return the error that a reply caused since the last call, if any."""
    try:
        simulator.raise_errors()
    except Exception as error:
        return f"{type(error).__name__}: {error}"
    return None


def _use_scenario(simulator: Simulator, scenario: Scenario) -> None:
    """Use a scenario, and clear the sessions that BFD calls without a dictionary share.

    Otherwise an edit would have no effect on sessions that an earlier call has found. A call whose
    output has no session returns the dictionary.
    """
    simulator.use_scenario(scenario)
    simulator.set_reply(CLI_SERVICE, "\n")
    try:
        simulator.module.get_bfd_neighbor("").clear()
    finally:
        simulator.reset_reply(CLI_SERVICE)
