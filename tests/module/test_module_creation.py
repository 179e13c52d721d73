"""Creation of the module object: the entry point, the definition and the create slot.

The create slot copies attributes of the import spec, returns the same module object after the first
execution, and supports one interpreter per process.
"""

from __future__ import annotations

import builtins
import importlib
import sys
from importlib.machinery import ModuleSpec
from types import BuiltinFunctionType, SimpleNamespace
from typing import Any

import pytest

from tests.support import isolated
from tests.support.fake_siblings import (
    CREATE_SLOT,
    EXEC_SLOT,
    SiblingSandbox,
    create_from_spec,
    create_module,
    definition,
    entry_point,
    rows_until_null,
    run_create_slot,
)
from tests.support.function_table import FUNCTIONS
from tests.support.isolated import MODULE, MODULE_PATH, encode_exception

pytestmark = pytest.mark.slow

INTERPRETER_CHANGE = (
    "Interpreter change detected - this module can only be loaded into one interpreter per process."
)

# Calling conventions of the interpreter, `methodobject.h`.
METH_KEYWORDS, METH_NOARGS, METH_O = 0x2, 0x4, 0x8

# attribute of the import spec -> name in the module
COPIED = {
    "loader": "__loader__",
    "origin": "__file__",
    "parent": "__package__",
    "submodule_search_locations": "__path__",
}


def create_from(attributes: dict[str, Any], raising: dict[str, str]) -> dict[str, Any]:
    """Create the module from an import spec with these attributes; those in `raising` raise."""

    class ImportSpec:
        def __getattr__(self, name: str) -> object:
            if name in raising:
                raise getattr(builtins, raising[name])(f"no {name} today")
            if name in attributes:
                return attributes[name]
            raise AttributeError(name)

    try:
        module = create_from_spec(ImportSpec())
    except Exception as error:
        return {"error": encode_exception(error)}
    plain = (str, type(None), list)
    return {name: held for name, held in vars(module).items() if isinstance(held, plain)}


NAME = {"name": isolated.MODULE}
WHOLE = {
    **NAME,
    "loader": "a loader",
    "origin": "a file",
    "parent": "a package",
    "submodule_search_locations": ["a place"],
}


# Arguments that each kind of function rejects after the module is executed.
REFUSED: list[list[Any]] = [
    *(
        [row.name, [5] * len(row.parameters)]
        for row in FUNCTIONS
        if row.parameters and row.parameters[0].type
    ),
    *([row.name, [None] * 3] for row in FUNCTIONS if row.kind == "keywords"),
]


def test_call_before_execution_ignores_wrong_arguments() -> None:
    def call_all(calls: list[list[Any]]) -> list[list[Any]]:
        module = create_from_spec(ModuleSpec(MODULE, None))
        ended: list[list[Any]] = []
        for name, arguments in calls:
            try:
                ended.append([name, repr(getattr(module, name)(*arguments))])
            except Exception as error:
                ended.append([name, type(error).__name__, "has not been imported" in str(error)])
        return ended

    assert isolated.value(call_all, REFUSED) == [
        [name, "RuntimeError", True] for name, _ in REFUSED
    ]


def test_entry_point_returns_definition_only() -> None:
    def call_entry() -> list[object]:
        import ctypes

        entry = entry_point()
        modules = dict(sys.modules)
        first = entry()
        definition: object = ctypes.cast(first, ctypes.py_object).value
        return [type(definition).__name__, entry() == first, sys.modules == modules]

    assert isolated.value(call_entry) == ["moduledef", True, True]


def test_definition_has_name_methods_and_two_slots() -> None:
    def read_definition() -> dict[str, Any]:
        defined = definition()
        methods = rows_until_null(defined.methods, "name")
        return {
            "name": defined.name.decode(),
            "docstring": defined.docstring,
            "methods": [[row.name.decode(), row.flags] for row in methods],
            "complete methods": all(row.function and row.docstring is None for row in methods),
            "slots": [row.slot for row in rows_until_null(defined.slots, "slot")],
            "complete slots": all(row.value for row in rows_until_null(defined.slots, "slot")),
        }

    found = isolated.value(read_definition)
    methods = found.pop("methods")
    assert [name for name, _flags in methods] == [row.name for row in FUNCTIONS]
    assert len(methods) == 30
    for (name, flags), row in zip(methods, FUNCTIONS):
        if row.kind == "keywords":
            assert flags & METH_KEYWORDS, name
        else:
            assert flags == {"none": METH_NOARGS, "one": METH_O}[row.kind], name
    assert found == {
        "name": isolated.MODULE,
        "docstring": None,
        "complete methods": True,
        "slots": [CREATE_SLOT, EXEC_SLOT],
        "complete slots": True,
    }


def test_module_has_name_and_no_docstring() -> None:
    def names() -> list[object]:
        module = create_module()
        return [module.__name__, module.__doc__]

    assert isolated.value(names) == [isolated.MODULE, None]


def test_module_name_comes_from_spec() -> None:
    assert isolated.value(create_from, {**WHOLE, "name": "another.name"}, {})["__name__"] == (
        "another.name"
    )


def test_creation_copies_four_spec_attributes() -> None:
    held = isolated.value(create_from, WHOLE, {})
    assert {name: held.get(name) for name in COPIED.values()} == {
        "__loader__": "a loader",
        "__file__": "a file",
        "__package__": "a package",
        "__path__": ["a place"],
    }


@pytest.mark.parametrize("missing", COPIED)
def test_missing_spec_attribute_is_skipped(missing: str) -> None:
    given = {name: held for name, held in WHOLE.items() if name != missing}
    held = isolated.value(create_from, given, {})
    assert held.pop(COPIED[missing], None) is None  # the default of a new module, or missing
    rest = {COPIED[name]: WHOLE[name] for name in COPIED if name != missing}
    assert {name: held.get(name) for name in rest} == rest


@pytest.mark.parametrize("missing", ["origin", "submodule_search_locations"])
def test_skipped_spec_attribute_sets_no_name(missing: str) -> None:
    given = {name: held for name, held in WHOLE.items() if name != missing}
    assert COPIED[missing] not in isolated.value(create_from, given, {})


@pytest.mark.parametrize("attribute", ["loader", "origin", "parent"])
def test_spec_attribute_none_is_copied(attribute: str) -> None:
    held = isolated.value(create_from, {**WHOLE, attribute: None}, {})
    assert COPIED[attribute] in held
    assert held[COPIED[attribute]] is None


def test_search_locations_none_are_skipped() -> None:
    held = isolated.value(create_from, {**WHOLE, "submodule_search_locations": None}, {})
    assert "__path__" not in held


@pytest.mark.parametrize("attribute", COPIED)
def test_spec_attribute_error_counts_as_missing(attribute: str) -> None:
    held = isolated.value(create_from, WHOLE, {attribute: "AttributeError"})
    assert "error" not in held
    assert held.get(COPIED[attribute]) is None


@pytest.mark.parametrize("attribute", COPIED)
@pytest.mark.parametrize("error", ["ValueError", "KeyboardInterrupt"])
def test_other_spec_error_fails_creation(attribute: str, error: str) -> None:
    outcome = isolated.run(create_from, WHOLE, {attribute: error})
    raised = outcome.error or isolated.Error.of(outcome.value["error"])
    assert (raised.type, raised.text) == (error, f"no {attribute} today")


def test_creation_before_execution_returns_new_object() -> None:
    def create_twice() -> bool:
        return create_module() is create_module()

    assert isolated.value(create_twice) is False


def test_creation_after_execution_returns_same_module() -> None:
    def create_again() -> list[object]:
        module = importlib.import_module(MODULE)
        before = {name: vars(module)[name] for name in vars(module) if name.startswith("__")}
        again = create_module("another.modules_util")
        after = {name: vars(module)[name] for name in vars(module) if name.startswith("__")}
        changed = [name for name in after if after[name] is not before.get(name)]
        for _ in range(20):
            create_module()
        count = sys.getrefcount(module)
        for _ in range(200):
            create_module()
        return [again is module, module.__name__, changed, sys.getrefcount(module) - count]

    same, name, changed, references = isolated.value(create_again)
    assert same is True
    assert name == isolated.MODULE
    # The import machinery sets `__spec__`; nothing else changes.
    assert set(changed) <= {"__spec__"}
    assert references == 0


def test_create_slot_after_execution_changes_no_name() -> None:
    def run_slot_again() -> list[object]:
        module: Any = importlib.import_module(MODULE)
        module._CHARSET = module.new_cookie_id = module.__file__ = "rebound"
        del module.Counters, module.get_token, module.__package__
        before = dict(vars(module))
        other = SimpleNamespace(
            name="another.modules_util",
            loader="another loader",
            origin="another file",
            parent="another package",
            submodule_search_locations=["another place"],
        )
        again = run_create_slot(other)
        return [
            again is module,
            list(vars(module)) == list(before),
            [name for name, held in vars(module).items() if held is not before[name]],
        ]

    assert isolated.value(run_slot_again) == [True, True, []]


@pytest.mark.parametrize("way", ["import", "creation"])
def test_second_creation_restores_functions_only(way: str) -> None:
    """The create slot changes nothing, but CPython then adds the definition's methods again.

    A rebound or deleted function is the built-in function again; no other name is restored. The
    import machinery sets `__spec__`.
    """

    def create_again(way: str) -> list[object]:
        module: Any = importlib.import_module(MODULE)
        module._CHARSET = module.new_cookie_id = "rebound"
        del module.Counters, module.get_token
        before = dict(vars(module))
        if way == "import":
            del sys.modules[MODULE]
            again = importlib.import_module(MODULE)
        else:
            again = create_from_spec(SimpleNamespace(name=MODULE, origin="other file"))
        held = dict(vars(module))
        added = [name for name in held if name not in before]
        changed = [name for name in before if name in held and held[name] is not before[name]]
        kinds = [type(held[name]) for name in [*changed, *added] if name != "__spec__"]
        return [
            again is module,
            [name for name in before if name not in held],
            added,
            changed,
            all(kind is BuiltinFunctionType for kind in kinds),
            module.new_cookie_id(),
        ]

    same, removed, added, changed, are_functions, result = isolated.value(create_again, way)
    assert same is True
    assert removed == []
    functions = {row.name for row in FUNCTIONS}
    assert added == ["get_token"]
    assert set(changed) - {"__spec__"} == functions - {"get_token"}
    assert ("__spec__" in changed) is (way != "creation")
    assert are_functions is True
    assert result == 0  # of the native service without a simulator


def test_creation_after_execution_reads_spec_name_only() -> None:
    def read_again() -> list[str]:
        importlib.import_module(MODULE)
        read = []

        class ImportSpec:
            def __getattr__(self, name: str) -> str:
                read.append(name)
                return MODULE

        create_from_spec(ImportSpec())
        return read

    assert isolated.value(read_again) == ["name"]


def load_in_two_interpreters(in_main_first: str) -> list[Any]:
    """Creates the module in a second interpreter after `in_main_first` happened in the main one."""
    import _xxsubinterpreters
    import os
    from typing import Any, cast

    interpreters = cast(Any, _xxsubinterpreters)
    done = []
    if in_main_first == "import":
        done.append(importlib.import_module(MODULE).__name__)
    elif in_main_first == "failed import":
        sandbox = SiblingSandbox()
        sandbox.break_("siblings['util.json'] = None")
        try:
            importlib.import_module(MODULE)
        except ImportError as error:
            done.append(str(error))
        sandbox.restore()
    else:
        done.append(create_module().__name__)

    read, write = os.pipe()
    interpreters.run_string(
        interpreters.create(),
        f"""if True:
        import os
        from importlib.machinery import ExtensionFileLoader
        from importlib.util import module_from_spec, spec_from_file_location
        loader = ExtensionFileLoader({MODULE!r}, {str(MODULE_PATH)!r})
        found = spec_from_file_location({MODULE!r}, {str(MODULE_PATH)!r}, loader=loader)
        try:
            said = "created " + module_from_spec(found).__name__
        except BaseException as error:
            said = type(error).__name__ + ": " + str(error)
        os.write({write}, said.encode())
    """,
    )
    os.close(write)
    done.append(os.read(read, 1000).decode())
    return done


@pytest.mark.parametrize(
    ("first", "seen"),
    [
        ("import", isolated.MODULE),
        ("creation", isolated.MODULE),
        ("failed import", "import of util.json halted; None in sys.modules"),
    ],
)
def test_second_interpreter_raises_import_error(first: str, seen: str) -> None:
    assert isolated.value(load_in_two_interpreters, first) == [
        seen,
        f"ImportError: {INTERPRETER_CHANGE}",
    ]


def test_main_interpreter_after_another_raises() -> None:
    def create_elsewhere_first() -> None:
        import _xxsubinterpreters
        from typing import Any, cast

        interpreters = cast(Any, _xxsubinterpreters)
        interpreters.run_string(
            interpreters.create(),
            f"""if True:
            from importlib.machinery import ExtensionFileLoader
            from importlib.util import module_from_spec, spec_from_file_location
            loader = ExtensionFileLoader({MODULE!r}, {str(MODULE_PATH)!r})
            found = spec_from_file_location({MODULE!r}, {str(MODULE_PATH)!r}, loader=loader)
            module_from_spec(found)
        """,
        )
        create_module()

    refused = isolated.error(create_elsewhere_first)
    assert (refused.type, refused.text) == ("ImportError", INTERPRETER_CHANGE)
