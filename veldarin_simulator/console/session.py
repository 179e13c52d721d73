"""The session: the only simulator of the process, and the scenario that the console edits."""

from __future__ import annotations

import threading
import time
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from typing import Any

from veldarin_simulator import NativeCall, Scenario, ScenarioError, Simulator, parse_capture
from veldarin_simulator.console import replies, serialization
from veldarin_simulator.console.arguments import encode_utf8
from veldarin_simulator.console.errors import ApiError
from veldarin_simulator.console.scenario_store import ScenarioStore
from veldarin_simulator.stub import Function, functions


@dataclass(frozen=True)
class CallResult:
    """The outcome of a call; either `result` or `exception` is set, encoded for JSON."""

    result: dict[str, Any] | None
    exception: dict[str, Any] | None
    call_log: list[NativeCall]
    seconds: float
    simulator_error: str | None  # raised by the simulator itself, not by the module


class Session:
    """A simulator that replies from this machine's state unless its scenario has the reply.

    Close it, or use it in a `with` block. A lock serializes all methods: they share one simulator
    and one call log.

    Args:
        store: The scenarios. Its initial scenario is loaded.

    Raises:
        ApiError: The initial scenario cannot be read.
        ScenarioError: The initial scenario is invalid.
        RuntimeError: Nothing is built, or the process has another simulator.
    """

    def __init__(self, store: ScenarioStore) -> None:
        self.functions: dict[str, Function] = functions()
        self._store = store
        self._lock = threading.Lock()
        self._loaded = None if store.initial is None else store.initial.name
        self._saved = Scenario() if self._loaded is None else store.load(self._loaded)
        self._simulator: Simulator | None = Simulator(self._saved)

    def __enter__(self) -> Session:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Close the simulator and discard unsaved edits."""
        with self._lock:
            if self._simulator is not None:
                self._simulator.close()
                self._simulator = None

    @contextmanager
    def simulator(self) -> Iterator[Simulator]:
        """Lock the session and yield its simulator.

        Raises:
            ApiError: The session is closed.
        """
        with self._lock:
            if self._simulator is None:
                raise ApiError(503, "the console is shutting down")
            yield self._simulator

    def call(self, name: str, positional: list[Any], keywords: dict[str, Any]) -> CallResult:
        """Call a function of the module with any arguments."""
        with self.simulator() as simulator:
            function = getattr(simulator.module, name)
            result = exception = simulator_error = None
            simulator.clear_calls()
            started = time.perf_counter()
            try:
                returned = function(*positional, **keywords)
            except Exception as error:
                seconds = time.perf_counter() - started
                exception = serialization.encode_exception(error, __file__)
            else:
                seconds = time.perf_counter() - started
                # Encode under the lock: a later call may change an object that calls share.
                result = serialization.encode_result(returned)
            call_log = simulator.call_log
            try:
                simulator.raise_errors()
            except Exception as error:
                simulator_error = f"{type(error).__name__}: {error}"
            return CallResult(result, exception, call_log, seconds, simulator_error)

    def parse(
        self, parser: parse_capture.Parser, text: bytes
    ) -> tuple[parse_capture.ParseResult, dict[int, list[parse_capture.Path]] | None]:
        """Run a parser on command output.

        Returns:
            The result, and for each line the paths of the values that came from it. The second is
            None if the parser fails or the text is too long.
        """
        with self.simulator() as simulator:
            parsed = parse_capture.parse(simulator, parser, text)
            if parsed.error is not None:
                return parsed, None
            return parsed, parse_capture.line_origins(simulator, parser, text, parsed.result)

    def scenarios(self) -> dict[str, Any]:
        """Return the names of the scenarios and the state of the loaded one."""
        with self.simulator() as simulator:
            loaded = self._loaded
            return {
                "loaded": loaded,
                "directory": None if loaded is None else str(self._store.path(loaded)),
                "store": str(self._store.directory),
                "modified": simulator.scenario != self._saved,
                "scenarios": self._store.names(),
            }

    def load(self, name: str | None) -> None:
        """Load a scenario, or none, and discard unsaved edits.

        Raises:
            ApiError: The scenario does not exist, cannot be read or is invalid.
        """
        with self.simulator() as simulator, _scenario_errors():
            scenario = Scenario() if name is None else self._store.load(name)
            simulator.use_scenario(scenario)
            self._loaded, self._saved = name, scenario

    def save(self, name: str) -> None:
        """Save the current scenario under a name, which becomes the loaded one.

        Raises:
            ApiError: Another scenario has the name, or the scenario cannot be written.
        """
        with self.simulator() as simulator:
            if name != self._loaded and name in self._store.names():
                detail = f"the scenario {name} already exists: load it, or choose another name"
                raise ApiError(409, detail)
            self._store.save(name, simulator.scenario)
            self._loaded, self._saved = name, simulator.scenario

    def replies(self) -> list[dict[str, Any]]:
        """Return every service and command, its source and whether the scenario overrides it."""
        with self.simulator() as simulator:
            scenario, listed = simulator.scenario, []
            for name in replies.names(scenario):
                file, command = replies.file_name(name, scenario), replies.is_command(name)
                listed.append(
                    {
                        "name": name,
                        "command": command,
                        "overridden": file in scenario,
                        "modified": scenario.get(file) != self._saved.get(file),
                        "source": None if command else simulator.source(name),
                    }
                )
            return listed

    def reply(self, name: str) -> dict[str, Any]:
        """Return the text of a reply, the scenario's or the default.

        Raises:
            ApiError: The name is invalid, or the text of the reply cannot be shown.
        """
        with self.simulator() as simulator:
            file = replies.file_name(name, simulator.scenario)
            override = simulator.scenario.get(file)
            try:
                text = (
                    replies.default_text(name, simulator) if override is None else override.decode()
                )
            except UnicodeDecodeError as error:
                raise ApiError(409, f"{file} is not UTF-8: edit the file itself") from error
            except Exception as error:
                raise ApiError(409, f"{name}: {type(error).__name__}: {error}") from error
            return {"name": name, "overridden": override is not None, "file": file, "text": text}

    def set_reply(self, name: str, text: str | None) -> None:
        """Override a reply from the next call on; None removes the override.

        Raises:
            ApiError: The service cannot return the text. Nothing changes.
        """
        with self.simulator() as simulator, _scenario_errors():
            file = replies.file_name(name, simulator.scenario)
            try:
                content = None if text is None else encode_utf8(text)
            except ValueError as error:
                raise ApiError(422, str(error), file=file) from error
            simulator.use_scenario(simulator.scenario.with_reply(file, content))


@contextmanager
def _scenario_errors() -> Iterator[None]:
    try:
        yield
    except ScenarioError as error:
        place = {"file": error.path.as_posix(), "line": error.line, "column": error.column}
        raise ApiError(422, error.problem, **place) from error
