"""The workbench: the one open appliance of the process, with the scenario in work on it.

Everything is done one at a time, under one lock: the module keeps the interpreter lock during a
call, but what answers it is Python, and two calls at once would mix their journals.
"""

from __future__ import annotations

import threading
import time
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import Any

from veldarin_simulator import NativeCall, Simulator, parse_capture
from veldarin_simulator.console import replies, serialization
from veldarin_simulator.console.errors import Problem
from veldarin_simulator.console.scenario_store import Files, Shelf
from veldarin_simulator.providers import Providers
from veldarin_simulator.scenario import Scenario, ScenarioError
from veldarin_simulator.stub import Function, functions


@dataclass(frozen=True)
class Called:
    """What a call left behind; either `result` or `raised` is there, in the form of `showing`."""

    result: dict[str, Any] | None
    raised: dict[str, Any] | None
    journal: list[NativeCall]
    seconds: float
    failed_answers: str | None  # what went wrong in the stand-in itself


class Bench:
    """An appliance that answers from this machine, below a scenario that can be edited.

    Close it, or use it in a `with` block. `ScenarioError`, `OSError`, `RuntimeError`: as
    `Appliance`, for the scenario that the shelf was given; `Problem`: it cannot be read.
    """

    def __init__(self, shelf: Shelf) -> None:
        self.functions: dict[str, Function] = functions()
        self._shelf = shelf
        self._lock = threading.Lock()
        self._folder = TemporaryDirectory(prefix="console-")
        self._simulator: Simulator | None = None
        self._loaded: str | None = None if shelf.given is None else shelf.given.name
        try:
            self._files: Files = {} if self._loaded is None else shelf.read(self._loaded)
            self._saved = dict(self._files)
            self._open(self._files)
        except BaseException:
            self._folder.cleanup()
            raise

    def __enter__(self) -> Bench:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Ends the appliance; what was not saved is gone."""
        with self._lock:
            if self._simulator is not None:
                self._simulator.close()
                self._simulator = None
            self._folder.cleanup()

    # Calls

    def call(self, name: str, positional: list[Any], named: dict[str, Any]) -> Called:
        """Calls a function of the module, whatever it is given."""
        with self._locked() as simulator:
            function = getattr(simulator.module, name)
            result = raised = failed = None
            simulator.clear_calls()
            started = time.perf_counter()
            try:
                returned = function(*positional, **named)
            except Exception as error:
                seconds = time.perf_counter() - started
                raised = serialization.raised(error, __file__)
            else:
                seconds = time.perf_counter() - started
                # Now: what is shared between calls may be another one after the next.
                result = serialization.result(returned)
            journal = simulator.call_log
            try:
                simulator.raise_errors()
            except Exception as error:
                failed = "".join(f"{type(error).__name__}: {error}")
            return Called(result, raised, journal, seconds, failed)

    def parse(
        self, kind: parse_capture.Parser, text: bytes
    ) -> tuple[parse_capture.ParseResult, dict[int, list[parse_capture.Path]] | None]:
        """What a parser makes of a captured text, and the values that each line brought."""
        with self._locked() as simulator:
            try:
                outcome = parse_capture.parse(simulator, kind, text)
                if outcome.error is not None:
                    return outcome, None
                return outcome, parse_capture.line_origins(simulator, kind, text, outcome.result)
            finally:
                simulator.set_reply("get_cli_cmd_output", self._answers["get_cli_cmd_output"])

    # Scenarios

    def scenarios(self) -> dict[str, Any]:
        """The scenarios there are, which one is loaded, whether it has unsaved changes."""
        with self._lock:
            loaded = self._loaded
            return {
                "loaded": loaded,
                "folder": None if loaded is None else str(self._shelf.path(loaded)),
                "shelf": str(self._shelf.folder),
                "changed": self._files != self._saved,
                "scenarios": self._shelf.names(),
            }

    def load(self, name: str | None) -> None:
        """Answers from a scenario, or from none; unsaved changes are gone. Raises `Problem`."""
        with self._lock:
            files = {} if name is None else self._shelf.read(name)
            self._use(files)
            self._loaded, self._saved = name, dict(files)

    def save(self, name: str) -> None:
        """Writes the answers in work into the scenario's folder. Raises `Problem`: one that is not
        loaded is there already."""
        with self._lock:
            if name != self._loaded and name in self._shelf.names():
                raise Problem(409, f"there is a scenario {name} already: load it, or choose a name")
            self._shelf.write(name, self._files)
            self._loaded, self._saved = name, dict(self._files)

    # Answers

    def answers(self) -> list[dict[str, Any]]:
        """Every answer there can be: its name, what it is, where it comes from, whether the
        scenario in work holds it."""
        with self._locked() as simulator:
            stock = {name: simulator.source(name) for name in self._services()}
            return [
                {
                    "name": name,
                    "command": replies.is_command(name),
                    "own": replies.file_of(name, self._files) in self._files,
                    "changed": self._changed(name),
                    "source": stock.get(name),
                }
                for name in replies.names(self._files)
            ]

    def answer(self, name: str) -> dict[str, Any]:
        """The text of an answer: the scenario's own, or what is answered without. Raises
        `Problem`."""
        with self._lock:
            file = replies.file_of(name, self._files)
            own = self._files.get(file)
            if own is None:
                try:
                    text = replies.present(name, self._answers)
                except Exception as error:
                    raise Problem(409, f"{name}: {type(error).__name__}: {error}") from error
            else:
                text = _decoded(own, file)
            return {"name": name, "own": own is not None, "file": file, "text": text}

    def take(self, name: str, text: str | None) -> None:
        """Answers so from now on; `None`: as without the scenario. Raises `Problem` for a text that
        is not what the service answers; then nothing has changed."""
        with self._lock:
            file = replies.file_of(name, self._files)
            files = {known: held for known, held in self._files.items() if known != file}
            if text is not None:
                try:
                    files[file] = text.encode()
                except UnicodeEncodeError as error:
                    raise Problem(422, "half a surrogate pair is no character") from error
            self._use(files)

    # The appliance

    @contextmanager
    def _locked(self) -> Iterator[Simulator]:
        with self._lock:
            if self._simulator is None:
                raise Problem(503, "the console is ending")
            yield self._simulator

    def _services(self) -> list[str]:
        return [name for name in replies.names({}) if not replies.is_command(name)]

    def _changed(self, name: str) -> bool:
        file = replies.file_of(name, self._files)
        return self._files.get(file) != self._saved.get(file)

    def _use(self, files: Files) -> None:
        try:
            self._open(files)
        except ScenarioError as error:
            where = {} if error.line is None else {"line": error.line}
            raise Problem(422, error.problem, file=error.path.name, **where) from error

    def _open(self, files: Files) -> None:
        """Opens the appliance anew; it stays as it is if the files are not what it can use."""
        with TemporaryDirectory(dir=self._folder.name) as folder:
            scenario = Path(folder)
            for name, content in files.items():
                (scenario / name).parent.mkdir(exist_ok=True)
                (scenario / name).write_bytes(content)
            loaded = Scenario.load(scenario)
            if self._simulator is not None:
                self._simulator.close()
                self._simulator = None
            self._simulator = Simulator(loaded)
            # A secret of the console's own, the same for as long as it runs.
            self._simulator.secret_path = Path(self._folder.name) / "preference_cookie_secret"
            self._answers = Providers(loaded, live=True).replies()
        self._files = files


def _decoded(content: bytes, file: str) -> str:
    try:
        return content.decode()
    except UnicodeDecodeError as error:
        raise Problem(409, f"{file} is not UTF-8: edit the file itself") from error
