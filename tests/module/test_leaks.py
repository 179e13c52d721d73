"""Leak tests: every function, in success and in every failure that a caller can cause, is called
many times while memory blocks, tracked objects, references and the simulator's objects are
counted."""

from __future__ import annotations

import ctypes
import gc
import sys
import warnings
from types import ModuleType
from typing import Callable, NamedTuple

import pytest

from checks.fault_injection import imports
from tests.support import isolated
from tests.support.call_cases import CASES, REPEATED_ONLY, CallCase, prepare
from tests.support.fake_siblings import SiblingSandbox, create_module
from tests.support.function_table import FUNCTIONS
from tests.support.isolated import MODULE
from tests.support.refcounts import tracked_objects
from veldarin_simulator import Simulator

pytestmark = [pytest.mark.slow, pytest.mark.usefixtures("frozen_heap")]

WARM_UP, ROUNDS = 24, 48  # then ROUNDS calls, then twice as many


# Counting


class Leak(NamedTuple):
    """A count and its growth in ROUNDS calls and in twice as many."""

    what: str
    once: int
    twice: int


def leaks(call: Callable[[], object], simulator: Simulator, objects: list[object]) -> list[Leak]:
    """Return the counts that grow or shrink with every call.

    Other threads of the test run create objects, too; only growth that repeats is a leak.
    """
    found = _grown(call, simulator, objects)
    for _ in range(3):
        again = {leak.what for leak in _grown(call, simulator, objects)} if found else set()
        found = [leak for leak in found if leak.what in again]
    return found


def _grown(call: Callable[[], object], simulator: Simulator, objects: list[object]) -> list[Leak]:
    def counts() -> list[int]:
        simulator.clear_calls()
        gc.collect()
        alive = simulator.live_objects
        return [
            sys.getallocatedblocks(),
            len(gc.get_objects()),
            alive.json_objects,
            alive.text_buffers,
            *map(sys.getrefcount, objects),
        ]

    def counts_after(times: int) -> list[int]:
        for _ in range(times):
            call()
        return counts()

    counts_after(WARM_UP)
    before, between, after = counts(), counts_after(ROUNDS), counts_after(2 * ROUNDS)
    names = ["memory blocks", "collectable objects", "json-c objects", "text buffers"]
    names += [f"references to {str(item)[:60]!r}" for item in objects]
    grown = [
        Leak(name, second - first, third - second)
        for name, first, second, third in zip(names, before, between, after)
    ]
    # Leaks of the measurement itself (collector hooks of other tests) are in both and cancel out.
    return [leak for leak in grown if abs(leak.twice - leak.once) > ROUNDS // 3]


def call_of(
    case: CallCase, simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> Callable[[], None]:
    """Return a function that makes the call and checks its result against the case."""
    run = prepare(case, simulator, module, monkeypatch)

    def call() -> None:
        raised: type[BaseException] | None = None
        try:
            run()
        except BaseException as error:
            raised = type(error)
        assert raised is case.error

    return call


@pytest.mark.parametrize("case", [*CASES, *REPEATED_ONLY], ids=str)
def test_repeated_call_leaks_nothing(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, case: CallCase
) -> None:
    call = call_of(case, simulator, module, monkeypatch)
    arguments = [*case.args, *case.kwargs, *case.kwargs.values(), *case.patched.values()]
    assert leaks(call, simulator, tracked_objects(module, arguments)) == []


def test_cases_cover_success_and_failure_of_functions() -> None:
    names = {row.name for row in FUNCTIONS}
    assert {case.function for case in CASES if case.error is None} == names
    assert {case.function for case in CASES if case.error is not None} == names


# Self-test: the leak check detects each kind of leak.


# Under a sanitizer the interpreter's own allocator is not in use, and its blocks are not counted.
BLOCKS = ["memory blocks"] if sys.getallocatedblocks() else []


@pytest.mark.parametrize(
    "new, expected",
    [(lambda: bytes(100), BLOCKS), (list, [*BLOCKS, "collectable objects"])],
    ids=["block", "container"],
)
def test_leak_check_detects_kept_object(
    simulator: Simulator, module: ModuleType, new: Callable[[], object], expected: list[str]
) -> None:
    kept: list[object] = []
    found = leaks(lambda: kept.append(new()), simulator, [])
    assert [leak.what for leak in found] == expected


def test_leak_check_detects_missing_decref(simulator: Simulator, module: ModuleType) -> None:
    argument = object()
    increment = ctypes.pythonapi.Py_IncRef
    increment.argtypes = [ctypes.py_object]
    (found,) = leaks(lambda: increment(argument), simulator, [argument])
    assert (found.once, found.twice) == (ROUNDS, 2 * ROUNDS)


def test_leak_check_detects_extra_decref(simulator: Simulator, module: ModuleType) -> None:
    argument = object()
    kept = [argument] * (20 * ROUNDS)
    (found,) = leaks(kept.pop, simulator, [argument])
    assert (found.once, found.twice) == (-ROUNDS, -2 * ROUNDS)


def test_leak_check_detects_json_object(simulator: Simulator, module: ModuleType) -> None:
    from util.json import JSONObject

    kept: list[object] = []
    found = leaks(lambda: kept.append(JSONObject({})), simulator, [])
    assert "json-c objects" in [leak.what for leak in found]
    kept.clear()


def test_leak_check_without_leak_reports_nothing(simulator: Simulator, module: ModuleType) -> None:
    assert (
        leaks(lambda: [{}, object(), "text".upper()], simulator, tracked_objects(module, [])) == []
    )


# The import: the interpreter discards a failed one, so that a test can repeat it.


def repeat_failing_imports(cases: list[tuple[str, list[str]]]) -> list[list[object]]:
    """Return the leaks of each broken import per attempt: its label, blocks, tracked objects, and
    references to permanent objects."""
    import _imp
    import gc
    from array import array

    from tests.support.refcounts import permanent_objects

    sandbox = SiblingSandbox()
    imported = [module for module in sandbox.valid.values() if module is not None]
    held = [item for module in imported for item in (vars(module), *vars(module).values())]
    tracked_objects = [MODULE, sys, sys.modules, *permanent_objects(), *imported, *held]

    def attempt(breaks: list[str]) -> None:
        modules = dict(sys.modules)
        with warnings.catch_warnings():
            sandbox.break_(*breaks)
            module = create_module()
            try:
                _imp.exec_dynamic(module)
            except Exception:
                return
            finally:
                sandbox.restore()
                sys.modules.clear()
                sys.modules.update(modules)
        raise AssertionError(f"goes through: {breaks}")

    def counts() -> array[int]:  # an array holds no references, unlike a list
        gc.collect()
        sys._clear_type_cache()  # its entries refer to names, or to None
        blocks, objects = sys.getallocatedblocks(), len(gc.get_objects())
        return array("q", [blocks, objects, *map(sys.getrefcount, tracked_objects)])

    def grown(breaks: list[str]) -> list[int]:
        before = counts()
        for _ in range(times):
            attempt(breaks)
        return [round((now - then) / times) for now, then in zip(counts(), before)]

    gc.collect()
    gc.freeze()
    results: list[list[object]] = []
    times = 24
    for label, breaks in cases:
        grown(breaks)
        found = grown(breaks)
        for _ in range(2):
            if any(found):  # a leak repeats; occasional allocations of the interpreter do not
                found = [min(pair, key=abs) for pair in zip(found, grown(breaks))]
        blocks, objects, *references = found
        more = {repr(item)[:60]: n for item, n in zip(tracked_objects, references) if n}
        results.append([label, blocks, objects, more])
    return results


def test_failed_import_leaks_nothing() -> None:
    broken = [
        case for case in imports.CASES if case.statements and case.path == isolated.MODULE_PATH
    ]
    assert len(broken) > 60
    found = isolated.value(
        repeat_failing_imports, [(case.label, case.statements) for case in broken]
    )
    assert [row for row in found if row[1:] != [0, 0, {}]] == []


def test_import_leak_check_detects_leak() -> None:
    keep = "__import__('sys').__dict__.setdefault('kept', []).append([bytes(100)])"
    cases = [("kept", [keep, "siblings['util.json'] = None"])]
    blocks = 3 if BLOCKS else 0
    assert isolated.value(repeat_failing_imports, cases) == [["kept", blocks, 1, {}]]


def test_import_leak_check_detects_missing_decref() -> None:
    lose = "ctypes.pythonapi.Py_IncRef(ctypes.py_object(MODULE))"
    cases = [("lost", [lose, "siblings['util.json'] = None"])]
    assert isolated.value(repeat_failing_imports, cases) == [
        ["lost", 0, 0, {repr(isolated.MODULE): 1}]
    ]
