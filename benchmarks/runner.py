"""Prepares the workloads on a simulator and runs their calls from C."""

from __future__ import annotations

import copy
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from importlib import import_module
from types import ModuleType, SimpleNamespace
from typing import Any

from benchmarks import cli_samples, competitors
from benchmarks.competitors import CYTHON, MODULE, load_extension
from benchmarks.workloads import CLI, MAX_ROWS, Workload
from veldarin_simulator import Simulator


@dataclass(frozen=True)
class Call:
    """One call, which the repeater makes many times.

    Attributes:
        keywords: Names of the last arguments, if they are keyword arguments.
        cleared: A dictionary to clear before every call.
        fails: Every call raises an exception.
    """

    function: Callable[..., object]
    arguments: tuple[Any, ...] = ()
    keywords: tuple[str, ...] | None = None
    cleared: dict[str, object] | None = None
    fails: bool = False

    def result(self) -> Any:
        """Call once and return the result, or the type and message of the expected exception."""
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

    def time(self, times: int) -> int:
        """Return the processor time of so many calls in nanoseconds."""
        return int(self._repeat("time", times))

    def count_instructions(self, times: int, label: str) -> None:
        """Have callgrind dump the instructions of so many calls under the label."""
        self._repeat("instructions", times, label)

    def allocations(self, rows: int = 1) -> float:
        """Return the new and resized blocks per row.

        The difference between one and five calls excludes what a process allocates only once.
        """
        self.time(2)
        few, many = (int(self._repeat("allocations", times)) for times in (1, 5))
        return (many - few) / 4 / rows

    def _repeat(self, measure: str, *options: object) -> Any:
        function = getattr(load_extension("bench_repeat"), measure)
        parts = (self.function, self.arguments, self.keywords, self.cleared, self.fails)
        return function(*parts, *options)


class Runner:
    """Sets up one workload after another for the named competitors."""

    def __init__(self, simulator: Simulator, names: Sequence[str] = competitors.NAMES) -> None:
        self._simulator = simulator
        self._modules = competitors.load(simulator, names)
        # Only now: the lower bound needs the native services of the process.
        self._lower_bound = load_extension("bench_lower_bound")
        self._json = self._modules[MODULE].json

    def calls(self, workload: Workload) -> dict[str, Call]:
        """Set the workload up and return the calls of all competitors and lower bounds.

        Raises:
            AssertionError: A competitor does not return what the module returns.
        """
        for service, reply in workload.replies().items():
            self._simulator.set_fixed_reply(service, reply)
        self._set_json(_json_without_parser(self._lower_bound) if workload.no_parse else self._json)
        calls = {
            name: self._call(workload, module)
            for name, module in self._modules.items()
            if _takes_part(name, module, workload)
        }
        expected = calls[MODULE].result()
        if workload.clears:
            expected = dict(expected)  # the next call clears it
        for name, call in calls.items():
            _check(workload, name, call.result(), expected)
        for name, function in workload.bounds.items():
            calls[name] = self._lower_bound_call(workload, function, expected)
            if not function.startswith("empty"):
                _check(workload, name, calls[name].result(), expected)
        return calls

    def _call(self, workload: Workload, module: Any) -> Call:
        if workload.sessions:
            self._add_sessions(workload, module)
        return Call(
            getattr(module, workload.function),
            workload.arguments,
            workload.keywords or None,
            workload.arguments[-1] if workload.clears else None,
            workload.raises is not None,
        )

    def _lower_bound_call(self, workload: Workload, name: str, result: object) -> Call:
        if name == "deepcopy":
            return Call(copy.deepcopy, (result,))
        function = getattr(self._lower_bound, name)
        if name.startswith("rebuild"):
            return Call(function, (result,))
        if name == "bridge_with_bytes":
            return Call(function, (self._response_bytes(workload),))
        return Call(function, workload.arguments, workload.keywords or None)

    def _set_json(self, json: Any) -> None:
        for name in (MODULE, CYTHON):
            if name in self._modules:
                self._modules[name].json = json
        self._lower_bound.prepare_bridge(import_module("util.json").JSONObject, json.loads)

    def _add_sessions(self, workload: Workload, module: Any) -> None:
        # Without "peer" in the output, the function returns its shared dictionary unchanged.
        self._simulator.set_fixed_reply(CLI, "")
        sessions = module.get_bfd_neighbor("")
        sessions.clear()
        for session in range(workload.sessions):
            self._simulator.set_fixed_reply(CLI, cli_samples.bfd_session(session))
            module.get_bfd_neighbor("get router info bfd neighbor")
        assert len(sessions) == workload.sessions
        self._simulator.set_fixed_reply(CLI, workload.replies()[CLI])

    def _response_bytes(self, workload: Workload) -> bytes:
        """Return the bytes that the module passes to `json.loads`."""
        module = self._modules[MODULE]
        passed: list[bytes] = []
        original, module.json = module.json, SimpleNamespace(loads=passed.append)
        try:
            getattr(module, workload.function)(*workload.arguments)
        finally:
            module.json = original
        return passed[0]


def _json_without_parser(lower_bound: Any) -> ModuleType:
    json = ModuleType("json")
    json.loads = lower_bound.empty_one  # type: ignore[attr-defined]
    return json


def _takes_part(name: str, module: Any, workload: Workload) -> bool:
    if workload.rows > MAX_ROWS.get(name, workload.rows):
        return False
    if workload.compiled_only and name not in (MODULE, CYTHON):
        return False
    function = getattr(module, workload.function, None)
    return bool(getattr(function, "__module__", None) == module.__name__)


def _check(workload: Workload, name: str, result: object, expected: object) -> None:
    # repr also compares the order of keys.
    assert repr(result) == repr(expected), (
        f"{workload.name}: {name} returned {repr(result)[:200]}…, expected {repr(expected)[:200]}…"
    )
