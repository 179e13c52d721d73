"""Calls of functions before the import ends, and objects that an import keeps alive."""

from __future__ import annotations

import builtins
import importlib
import sys
import warnings
from contextlib import suppress
from types import BuiltinFunctionType, ModuleType
from typing import Any

import pytest

from tests.support import isolated
from tests.support.assertions import FILE
from tests.support.doubles import Failure, UncomparableStr
from tests.support.fake_siblings import SiblingSandbox, create_module
from tests.support.function_table import FUNCTIONS
from tests.support.isolated import MODULE, MODULE_PATH, WRONG_PYTHON_MODULE, encode_exception

CALLS = [[row.name, row.required] for row in FUNCTIONS]
IMPORTING = f"RuntimeError: {isolated.MODULE} is still being imported"
NOT_IMPORTED = f"RuntimeError: {isolated.MODULE} has not been imported"


def call_at(moment: str, calls: list[list[Any]]) -> list[Any]:
    """Call every function at a moment of the import; return how each call ends, with its entries.

    The moments: "created" (before the execution), the name of a sibling (when the execution takes
    something from it), "warning" (in its first step), a statement that breaks a sibling (after the
    execution failed), and "second" (on a second module while the first one is imported).
    """
    sandbox = SiblingSandbox()
    module = create_module(path=WRONG_PYTHON_MODULE if moment == "warning" else MODULE_PATH)
    second = create_module() if moment == "second" else None
    before = {name: vars(module)[name] for name, _required in calls}
    ended: list[Any] = []

    def call_all(functions: Any) -> None:
        for name, required in calls:
            try:
                ended.append([f"returned {functions[name](*[None] * required)!r}", []])
            except Exception as error:
                text = f"{type(error).__name__}: {error}"
                # The first entry is this function's.
                ended.append([text, encode_exception(error)["entries"][1:]])

    class Sibling(ModuleType):
        def __getattribute__(self, name: str) -> Any:
            if not name.startswith("__") or name == "__pyx_capi__":
                call_all(vars(second) if second else before)
                raise OSError
            return super().__getattribute__(name)

    if moment == "created":
        call_all(before)
        return ended
    if moment == "warning":
        warnings.showwarning = lambda *given, **named: call_all(before)
        warnings.simplefilter("always")
        module.__loader__.exec_module(module)
        return ended
    failed = moment.startswith("siblings")
    if failed:
        sandbox.break_(moment)
    else:
        sys.modules["util.errors" if second else moment] = Sibling(moment)
    try:
        module.__loader__.exec_module(module)
    except (ImportError, OSError):
        if failed:
            sandbox.restore()
            call_all(before)
    return ended


@pytest.mark.parametrize(
    "moment, text",
    [
        ("created", NOT_IMPORTED),
        ("warning", IMPORTING),
        ("util.json", IMPORTING),
        ("migbase.migbase", IMPORTING),
        ("os", IMPORTING),
        ("util.errors", IMPORTING),
        ("second", IMPORTING),
        ("siblings['util.json'] = None", NOT_IMPORTED),
        ("siblings['copy'] = None", NOT_IMPORTED),
        (
            "siblings['collections'] = "
            "with_attributes('collections', namedtuple=raiser(OSError()))",
            NOT_IMPORTED,
        ),
    ],
)
def test_call_before_import_ends_raises_runtime_error(moment: str, text: str) -> None:
    ended = isolated.value(call_at, moment, CALLS)
    assert [each[0] for each in ended] == [text] * 30
    for row, (_text, entries) in zip(FUNCTIONS, ended):
        ((name, file, first_line, line, module),) = entries
        assert (name, file, module) == (row.qualified, FILE, isolated.MODULE)
        assert row.first_line[0] <= first_line == line <= row.first_line[1]


def test_function_of_failed_import_raises_runtime_error() -> None:
    def call_bound() -> list[Any]:
        SiblingSandbox()
        module = create_module()
        before = {name: held for name, held in vars(module).items() if callable(held)}

        vars(module)[UncomparableStr("__test__")] = None
        with suppress(Failure):
            module.__loader__.exec_module(module)
        function = module.new_cookie_id
        assert isinstance(function, BuiltinFunctionType)
        assert function is not before["new_cookie_id"]
        assert (function.__self__, MODULE in sys.modules) == (None, False)
        try:
            function()
        except RuntimeError as error:
            return [str(error), encode_exception(error)["entries"][1:]]
        return []

    text, entries = isolated.value(call_bound)
    assert f"RuntimeError: {text}" == NOT_IMPORTED
    ((name, file, _first_line, _line, module),) = entries
    assert (name, file, module) == (f"{isolated.MODULE}.new_cookie_id", FILE, None)


def test_imported_types_and_builtins_are_kept_alive() -> None:
    def kept() -> dict[str, bool]:
        import gc
        import weakref

        sandbox = SiblingSandbox()
        sandbox.break_(
            *(
                f"builtins.{kind} = sized_type('{kind}', builtins.{kind}.__basicsize__, {kind})"
                for kind in ("type", "bool", "complex")
            ),
            "builtins.open = lambda *given: None",
            "builtins.range = lambda *given, real=builtins.range: real(*given)",
        )
        alive = {
            name: weakref.ref(getattr(builtins, name))
            for name in ("type", "bool", "complex", "open", "range")
        }
        sibling: Any = sys.modules["util.json"]
        alive["JSONObject"] = weakref.ref(sibling.JSONObject)
        try:
            importlib.import_module(MODULE)
        finally:
            sandbox.restore()
        del sibling
        gc.collect()
        return {name: reference() is not None for name, reference in alive.items()}

    assert isolated.value(kept) == dict.fromkeys(
        ["type", "bool", "complex", "open", "range", "JSONObject"], True
    )
