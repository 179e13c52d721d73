"""One case set up so that only the module is on trial: what belongs to the siblings, the libraries
and the test itself is sheltered from failing memory."""

from __future__ import annotations

import gc
import sys
from array import array
from collections.abc import Callable, Mapping
from contextlib import suppress
from pathlib import Path
from types import FunctionType, SimpleNamespace
from typing import Any

from checks.fault_injection.libfaults import Library, Point
from checks.fault_injection.process_cases import Arranged, Each
from checks.fault_injection.results import Outcome, outcome
from tests.support.call_cases import DELETED
from tests.support.doubles import FailNth, NullLogger
from tests.support.query_cases import QUERY_CASES
from tests.support.refcounts import tracked_objects
from veldarin_simulator import LiveObjects, Simulator

NO_LIVE_OBJECTS = LiveObjects(json_objects=0, text_buffers=0)
# Called through their names in the module; those of the module itself are on trial.
COLLABORATORS = ("text_", "bytes_", "serial_number_ascii", "CFunctionError", "open")
TIMES = 4  # of a repeated trial


class Log:
    """A logger that keeps its lines."""

    def __init__(self, sheltered: Callable[[Any], Any] = lambda function: function) -> None:
        self.lines: list[str] = []
        self.debug = sheltered(self.lines.append)
        self.error = sheltered(lambda text: self.lines.append(f"error: {text}"))


class PathOnTrial:
    """A path whose methods are sheltered."""

    def __init__(self, library: Library, path: Any) -> None:
        for name in ("is_file", "absolute"):
            if hasattr(path, name):
                setattr(self, name, library.sheltered(getattr(path, name)))


def fresh_values(given: Any) -> Any:
    """Arguments with containers of their own, since a call may put something into them."""
    if isinstance(given, Mapping):
        return {name: _fresh(value) for name, value in given.items()}
    return tuple(_fresh(value) for value in given)


def _fresh(value: Any) -> Any:
    if isinstance(value, Each):
        return value.make()
    return {**value} if type(value) is dict else value


def called(function: Callable[[], Any], handling: bool) -> Any:
    """The function, called where an exception is being handled, or not."""
    if not handling:
        return function()
    try:
        raise LookupError("is being handled")
    except LookupError:
        return function()


class Stage:
    """A case in this process, for good: nothing of it is ever taken back."""

    def __init__(self, library: Library, simulator: Simulator, arranged: Arranged) -> None:
        self.library, self.simulator, self.case = library, simulator, arranged.case
        self.handling = arranged.handling
        self.runs = 0  # with memory failing
        case = arranged.case
        self.module: Any = simulator.module
        self.steps = [FailNth(case.create), FailNth(case.release)]
        self.function = getattr(self.module, case.function)
        self.log = Log(library.sheltered)
        self.shared = self._shared_sessions()
        self._script()
        self._shelter()
        arranged.arrange(self.module)
        arguments = [*case.args, *case.kwargs, *case.kwargs.values(), *case.patched.values()]
        self._watched = tracked_objects(self.module, arguments)

    def _shared_sessions(self) -> dict[str, Any]:
        # A text without sessions: the default of `list_bfd` comes back as it is.
        self.simulator.set_reply("get_cli_cmd_output", "")
        shared: dict[str, Any] = self.module.get_bfd_neighbor("")
        return shared

    def _script(self) -> None:
        case, simulator = self.case, self.simulator
        simulator.set_reply("get_cli_cmd_output", case.cli)
        simulator.set_reply("cookieval_wrap", b"wrapped")
        simulator.set_reply("cookieval_unwrap", None)  # the text stays as it is
        for service in ("aps_get_new_cookie_id", "__get_aps_hash"):
            simulator.set_reply(service, 0xFFFFFFFF)  # a number that the interpreter has to make
        for row in QUERY_CASES:
            if row.native:
                simulator.set_reply(row.native, case.reply)
        for step, name in zip(self.steps, ("on_create", "on_release")):
            if step.fails_at is not None:
                setattr(simulator, name, step)

    def _shelter(self) -> None:
        sheltered, module, patched = self.library.sheltered, self.module, self.case.patched
        given: dict[str, Any] = {name: getattr(module, name, open) for name in COLLABORATORS}
        given["urandom"] = lambda size: bytes(range(size))
        bound: dict[str, Any] = {name: sheltered(value) for name, value in given.items()}
        bound["json"] = SimpleNamespace(loads=sheltered(module.json.loads))
        bound["copy"] = SimpleNamespace(deepcopy=sheltered(module.copy.deepcopy))
        bound["_logger"] = self.log
        for name, value in patched.items():
            if not isinstance(value, NullLogger):
                bound[name] = sheltered(value) if isinstance(value, FunctionType) else value
        path = patched.get("Path", Path)
        if isinstance(path, type):
            bound["Path"] = sheltered(lambda text: PathOnTrial(self.library, path(text)))
        for name, value in bound.items():
            if value is DELETED:
                delattr(module, name)
            else:
                setattr(module, name, value)

    def reset(self) -> None:
        """Puts everything back that one call uses up."""
        for step in self.steps:
            step.taken = 0
        self.log.lines.clear()
        self.shared.clear()
        if self.case.function == "encrypt_cookie":
            self.function(b"")  # the appliance sets a text aside again for want of memory
        if self.case.before is not None:
            self.case.before(self.simulator)

    def run(self, point: Point | None = None, keep: list[BaseException] | None = None) -> Outcome:
        """The case's call with memory failing at a point, or nowhere; exceptions may be kept."""
        arguments = fresh_values(self.case.args)
        keywords = fresh_values(self.case.kwargs) if self.case.kwargs else None
        self.reset()
        return outcome(
            lambda: self._trial(arguments, keywords, point),
            self.log.lines,
            keep,
        )

    def _trial(self, arguments: Any, keywords: Any, point: Point | None) -> Any:
        self.runs += point is not None
        trial = self.library.trial
        return called(lambda: trial(self.function, arguments, keywords, point), self.handling)

    def left_behind(self, point: Point) -> list[str]:
        """What grows, or shrinks, with each repetition of a trial."""
        blocks = array("q", [0, 0])
        counted = array("q")
        for i in range(-1, 2 * TIMES):
            arguments = fresh_values(self.case.args)
            keywords = fresh_values(self.case.kwargs) if self.case.kwargs else None
            self.reset()
            with suppress(BaseException):
                self._trial(arguments, keywords, point)
            gc.collect()
            if i < 0:
                counted.extend(map(sys.getrefcount, self._watched))
            else:
                blocks[i // TIMES] = self.library.live()
        found = []
        # What a call leaves it leaves each time; the interpreter may do one thing for once.
        if each_time := round((blocks[1] - blocks[0]) / TIMES):
            found.append(f"{each_time:+} memory blocks")
        for item, before in zip(self._watched, counted):
            if each_time := round((sys.getrefcount(item) - before) / (2 * TIMES)):
                found.append(f"{each_time:+} references to {str(item)[:60]!r}")
        return found
