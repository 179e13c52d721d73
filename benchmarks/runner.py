"""The bench: an open appliance on which one workload after the other is set up, and the calls that
each contender is measured by."""

from __future__ import annotations

import copy
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from importlib import import_module
from types import ModuleType, SimpleNamespace
from typing import Any

from benchmarks import cli_samples, load
from benchmarks.competitors import CYTHON, NAMES, PRODUCT, contenders
from benchmarks.workloads import CLI, MOST_ROWS, Workload
from veldarin_simulator import Simulator


@dataclass(frozen=True)
class Call:
    """One call in the form that the meter takes."""

    function: Callable[..., object]
    arguments: tuple[Any, ...] = ()
    keywords: tuple[str, ...] | None = None
    cleared: dict[str, object] | None = None
    fails: bool = False

    def parts(self) -> tuple[object, ...]:
        """For the meter's functions, which want the number of calls next."""
        return self.function, self.arguments, self.keywords, self.cleared, self.fails

    def result(self) -> Any:
        """Calls once. Of an exception that is expected, the type and the text are the result."""
        if self.cleared is not None:
            self.cleared.clear()
        positional = len(self.arguments) - len(self.keywords or ())
        keywords = dict(zip(self.keywords or (), self.arguments[positional:]))
        try:
            return self.function(*self.arguments[:positional], **keywords)
        except Exception as error:
            if not self.fails:
                raise
            return type(error), str(error)


class Bench:
    """The contenders asked for, on an appliance that answers what the workload at hand wants."""

    def __init__(self, simulator: Simulator, names: Sequence[str] = NAMES) -> None:
        self._simulator = simulator
        self._modules = contenders(simulator, names)
        # Looked up only now: it needs the services of the process.
        self._floor = load.load("bench_lower_bound")
        self._json = self._modules[PRODUCT].json

    def calls(self, workload: Workload) -> dict[str, Call]:
        """Sets a workload up and gives the call of each contender and floor; the product first.

        `AssertionError`: a contender does not return what the product returns.
        """
        for service, reply in workload.replies().items():
            self._simulator.set_fixed_reply(service, reply)
        self._parse_with(_nothing_parsed(self._floor) if workload.bare else self._json)
        calls = {
            name: self._call(workload, module)
            for name, module in self._modules.items()
            if _takes_part(name, module, workload)
        }
        wanted = calls[PRODUCT].result()
        if workload.merges:
            wanted = dict(wanted)  # the next call empties it
        for name, call in calls.items():
            _check(workload, name, call.result(), wanted)
        for name, function in workload.floors.items():
            calls[name] = self._floor_call(workload, function, wanted)
            # The trivial ones' empty builtins are there to be empty.
            if not function.startswith("empty"):
                _check(workload, name, calls[name].result(), wanted)
        return calls

    def _call(self, workload: Workload, module: Any) -> Call:
        if workload.sessions:
            self._know_sessions(workload, module)
        return Call(
            getattr(module, workload.function),
            workload.arguments,
            workload.keywords or None,
            workload.arguments[-1] if workload.merges else None,
            workload.fails is not None,
        )

    def _floor_call(self, workload: Workload, function: str, result: object) -> Call:
        if function == "deepcopy":
            return Call(copy.deepcopy, (result,))
        called = getattr(self._floor, function)
        if function.startswith("rebuild"):
            return Call(called, (result,))
        if function == "bridge_with_bytes":
            return Call(called, (self._bridged_bytes(workload),))
        return Call(called, workload.arguments, workload.keywords or None)

    def _parse_with(self, json: Any) -> None:
        for name in (PRODUCT, CYTHON):
            if name in self._modules:
                self._modules[name].json = json
        self._floor.prepare_bridge(import_module("util.json").JSONObject, json.loads)

    def _know_sessions(self, workload: Workload, module: Any) -> None:
        # Without "peer" in the output the shared dictionary comes back as it is.
        self._simulator.set_fixed_reply(CLI, "")
        known = module.get_bfd_neighbor("")
        known.clear()
        for session in range(workload.sessions):
            self._simulator.set_fixed_reply(CLI, cli_samples.bfd_session(session))
            module.get_bfd_neighbor("get router info bfd neighbor")
        assert len(known) == workload.sessions
        self._simulator.set_fixed_reply(CLI, workload.replies()[CLI])

    def _bridged_bytes(self, workload: Workload) -> bytes:
        module = self._modules[PRODUCT]
        given: list[bytes] = []
        used, module.json = module.json, SimpleNamespace(loads=given.append)
        try:
            getattr(module, workload.function)(*workload.arguments)
        finally:
            module.json = used
        return given[0]


def _nothing_parsed(floor: Any) -> ModuleType:
    json = ModuleType("json")
    json.loads = floor.empty_one  # type: ignore[attr-defined]
    return json


def _takes_part(name: str, module: Any, workload: Workload) -> bool:
    if workload.rows > MOST_ROWS.get(name, workload.rows):
        return False
    if workload.compiled and name not in (PRODUCT, CYTHON):
        return False
    function = getattr(module, workload.function, None)
    return bool(getattr(function, "__module__", None) == module.__name__)


def _check(workload: Workload, name: str, result: object, wanted: object) -> None:
    # The order of keys counts too.
    assert repr(result) == repr(wanted), (
        f"{workload.name}: {name} returns {repr(result)[:200]}…, not {repr(wanted)[:200]}…"
    )
