"""Functions called before the module's import has ended, and what an import keeps alive."""

from __future__ import annotations

from typing import Any

import pytest

from tests.support import isolated
from tests.support.assertions import FILE
from tests.support.function_table import FUNCTIONS

CALLS = [[row.name, row.required] for row in FUNCTIONS]
IMPORTING = f"RuntimeError: {isolated.MODULE} is still being imported"
NOT_IMPORTED = f"RuntimeError: {isolated.MODULE} has not been imported"


def call_at(moment: str, calls: list[list[Any]]) -> list[Any]:
    """Calls every function at a moment of the import; how each call ends, with its entries.

    The moments: "created" (before the execution), the name of a sibling (when the execution takes
    something from it), "warning" (in its first step), "failed" (after it), and "second" (on a
    second module object while the first one is imported).
    """
    import sys
    import warnings
    from types import ModuleType

    from tests.support.fake_siblings import Workbench, created
    from tests.support.isolated import OTHER_RUNTIME, PRODUCT, describe

    bench = Workbench()
    module = created(str(OTHER_RUNTIME if moment == "warning" else PRODUCT))
    second = created(str(PRODUCT)) if moment == "second" else None
    before = {name: vars(module)[name] for name, _required in calls}
    ended: list[Any] = []

    def call_all(functions: Any) -> None:
        for name, required in calls:
            try:
                ended.append([f"returned {functions[name](*[None] * required)!r}", []])
            except Exception as error:
                text = f"{type(error).__name__}: {error}"
                # The first entry is this function's.
                ended.append([text, describe(error)["entries"][1:]])

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
    if moment == "failed":
        bench.spoil("siblings['copy'] = None")
    else:
        sys.modules["util.errors" if second else moment] = Sibling(moment)
    try:
        module.__loader__.exec_module(module)
    except (ImportError, OSError):
        if moment == "failed":
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
        ("failed", NOT_IMPORTED),
    ],
)
def test_early_call_says_how_far_the_import_is(moment: str, text: str) -> None:
    ended = isolated.value(call_at, moment, CALLS)
    assert [each[0] for each in ended] == [text] * 30
    for row, (_text, entries) in zip(FUNCTIONS, ended):
        ((name, file, first_line, line, module),) = entries
        assert (name, file, module) == (row.qualified, FILE, isolated.MODULE)
        assert row.first_line[0] <= first_line == line <= row.first_line[1]


def test_function_bound_by_a_failed_import_says_so() -> None:
    def call_bound() -> list[Any]:
        import sys
        from contextlib import suppress
        from types import BuiltinFunctionType

        from tests.support.fake_siblings import Workbench, created
        from tests.support.isolated import MODULE, PRODUCT, describe

        Workbench()
        module = created(str(PRODUCT))
        before = {name: held for name, held in vars(module).items() if callable(held)}

        class Unequal(str):
            """A key in the place of an equal name; comparing the two fails."""

            __hash__ = str.__hash__

            def __eq__(self, other: object) -> bool:
                raise OSError

        vars(module)[Unequal("__test__")] = None
        with suppress(OSError):
            module.__loader__.exec_module(module)
        function = module.new_cookie_id
        assert isinstance(function, BuiltinFunctionType)
        assert function is not before["new_cookie_id"]
        assert (function.__self__, MODULE in sys.modules) == (None, False)
        try:
            function()
        except RuntimeError as error:
            return [str(error), describe(error)["entries"][1:]]
        return []

    text, entries = isolated.value(call_bound)
    assert f"RuntimeError: {text}" == NOT_IMPORTED
    ((name, file, _first_line, _line, module),) = entries
    assert (name, file, module) == (f"{isolated.MODULE}.new_cookie_id", FILE, None)


def test_imported_types_and_builtins_are_kept_alive() -> None:
    def kept() -> dict[str, bool]:
        import builtins
        import gc
        import importlib
        import weakref

        from tests.support.fake_siblings import Workbench
        from tests.support.isolated import MODULE

        bench = Workbench()
        bench.spoil(
            *(
                f"builtins.{kind} = sized_type('{kind}', builtins.{kind}.__basicsize__, {kind})"
                for kind in ("type", "bool", "complex")
            ),
            "builtins.open = lambda *given: None",
            "builtins.range = lambda *given, real=builtins.range: real(*given)",
        )
        import sys

        alive = {
            name: weakref.ref(getattr(builtins, name))
            for name in ("type", "bool", "complex", "open", "range")
        }
        sibling: Any = sys.modules["util.json"]
        alive["JSONObject"] = weakref.ref(sibling.JSONObject)
        try:
            importlib.import_module(MODULE)
        finally:
            bench.repair()
        del sibling
        gc.collect()
        return {name: reference() is not None for name, reference in alive.items()}

    assert isolated.value(kept) == dict.fromkeys(
        ["type", "bool", "complex", "open", "range", "JSONObject"], True
    )
