"""Calls of functions before the import ends, and objects that an import keeps alive."""

from __future__ import annotations

import builtins
import gc
import importlib
import sys
import warnings
import weakref
from contextlib import suppress
from types import BuiltinFunctionType, ModuleType
from typing import Any

import pytest

from tests.support import isolated
from tests.support.assertions import FILE, raises_exactly
from tests.support.doubles import Failure, UncomparableStr
from tests.support.fake_siblings import SiblingSandbox, create_module
from tests.support.function_table import FUNCTIONS
from tests.support.isolated import MODULE, MODULE_PATH, WRONG_PYTHON_MODULE, encode_exception

IMPORTING = f"{MODULE} is still being imported"
NOT_IMPORTED = f"{MODULE} has not been imported"


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
@isolated.test
def test_call_before_import_ends_raises_runtime_error(moment: str, text: str) -> None:
    """Call every function at a moment of the import.

    The moments: "created" (before the execution), the name of a sibling (when the execution takes
    something from it), "warning" (in its first step), a statement that breaks a sibling (after the
    execution failed), and "second" (on a second module while the first one is imported).
    """
    sandbox = SiblingSandbox()
    module = create_module(path=WRONG_PYTHON_MODULE if moment == "warning" else MODULE_PATH)
    called = create_module() if moment == "second" else module
    functions = {row.name: vars(called)[row.name] for row in FUNCTIONS}
    called_names: set[str] = set()

    def call_all(*given: object, **named: object) -> None:
        for row in FUNCTIONS:
            function = functions[row.name]
            error = raises_exactly(RuntimeError, function, *[None] * row.required)
            assert str(error) == text
            # The first entry is that of `raises_exactly`.
            _, entry = isolated.Error.of(encode_exception(error)).entries
            assert (entry.name, entry.file, entry.module) == (row.qualified, FILE, MODULE)
            assert row.first_line[0] <= entry.first_line == entry.line <= row.first_line[1]
            called_names.add(row.name)

    class Sibling(ModuleType):
        def __getattribute__(self, name: str) -> Any:
            if not name.startswith("__") or name == "__pyx_capi__":
                call_all()
                raise OSError
            return super().__getattribute__(name)

    if moment == "created":
        call_all()
    elif moment == "warning":
        warnings.showwarning = call_all
        warnings.simplefilter("always")
        module.__loader__.exec_module(module)
    elif moment.startswith("siblings"):
        sandbox.break_(moment)
        with suppress(ImportError, OSError):
            module.__loader__.exec_module(module)
        sandbox.restore()
        call_all()
    else:
        name = "util.errors" if moment == "second" else moment
        sys.modules[name] = Sibling(name)
        raises_exactly(OSError, module.__loader__.exec_module, module)
    assert len(called_names) == 30


@isolated.test
def test_function_of_failed_import_raises_runtime_error() -> None:
    SiblingSandbox()
    module = create_module()
    before = module.new_cookie_id
    vars(module)[UncomparableStr("__test__")] = None
    with suppress(Failure):
        module.__loader__.exec_module(module)
    function = module.new_cookie_id
    assert isinstance(function, BuiltinFunctionType)
    assert function is not before
    assert (function.__self__, MODULE in sys.modules) == (None, False)
    error = raises_exactly(RuntimeError, function)
    assert str(error) == NOT_IMPORTED
    _, entry = isolated.Error.of(encode_exception(error)).entries
    assert (entry.name, entry.file, entry.module) == (f"{MODULE}.new_cookie_id", FILE, None)


@isolated.test
def test_imported_types_and_builtins_are_kept_alive() -> None:
    sandbox = SiblingSandbox()
    sandbox.break_(
        *(
            f"builtins.{kind} = sized_type('{kind}', builtins.{kind}.__basicsize__, {kind})"
            for kind in ("type", "bool", "complex")
        ),
        "builtins.open = lambda *given: None",
        "builtins.range = lambda *given, real=builtins.range: real(*given)",
    )
    names = ("type", "bool", "complex", "open", "range")
    alive = {name: weakref.ref(getattr(builtins, name)) for name in names}
    sibling: Any = sys.modules["util.json"]
    alive["JSONObject"] = weakref.ref(sibling.JSONObject)
    try:
        importlib.import_module(MODULE)
    finally:
        sandbox.restore()
    del sibling
    gc.collect()
    assert [name for name, reference in alive.items() if reference() is None] == []
