"""Creation of the module object: the entry point, the definition and the create slot.

The create slot copies attributes of the import spec, returns the same module object after the first
execution, and supports one interpreter per process. The tests run in isolated processes.
"""

from __future__ import annotations

import ctypes
import importlib
import os
import sys
from importlib.machinery import ModuleSpec
from types import BuiltinFunctionType, SimpleNamespace
from typing import Any

import pytest

from tests.support import isolated
from tests.support.assertions import raises_exactly
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
from tests.support.isolated import MODULE, MODULE_PATH

pytestmark = pytest.mark.slow

INTERPRETER_CHANGE = (
    "Interpreter change detected - this module can only be loaded into one interpreter per process."
)

# Calling conventions of the interpreter, `methodobject.h`.
METH_KEYWORDS, METH_NOARGS, METH_O = 0x2, 0x4, 0x8


@isolated.test
def test_call_before_execution_ignores_wrong_arguments() -> None:
    module = create_from_spec(ModuleSpec(MODULE, None))
    # Arguments that each kind of function rejects after the module is executed.
    rejected = [
        *((row, 5) for row in FUNCTIONS if row.parameters and row.parameters[0].type),
        *((row, None) for row in FUNCTIONS if row.kind == "keywords"),
    ]
    for row, argument in rejected:
        count = len(row.parameters) if argument else 3
        error = raises_exactly(RuntimeError, getattr(module, row.name), *[argument] * count)
        assert "has not been imported" in str(error)


@isolated.test
def test_entry_point_returns_definition_only() -> None:
    entry = entry_point()
    modules = dict(sys.modules)
    first = entry()
    definition: object = ctypes.cast(first, ctypes.py_object).value
    assert type(definition).__name__ == "moduledef"
    assert entry() == first
    assert sys.modules == modules


@isolated.test
def test_definition_has_name_methods_and_two_slots() -> None:
    defined = definition()
    assert (defined.name.decode(), defined.docstring) == (MODULE, None)
    slots = rows_until_null(defined.slots, "slot")
    assert [slot.slot for slot in slots] == [CREATE_SLOT, EXEC_SLOT]
    assert all(slot.value for slot in slots)
    methods = rows_until_null(defined.methods, "name")
    assert [method.name.decode() for method in methods] == [row.name for row in FUNCTIONS]
    assert len(methods) == 30
    for method, row in zip(methods, FUNCTIONS):
        assert method.function
        assert method.docstring is None
        if row.kind == "keywords":
            assert method.flags & METH_KEYWORDS, row.name
        else:
            assert method.flags == {"none": METH_NOARGS, "one": METH_O}[row.kind], row.name


# The import spec


class Spec:
    """An import spec with attributes, of which those that are exceptions are raised."""

    def __init__(self, **attributes: object) -> None:
        self._attributes = attributes
        self.names_read: list[str] = []

    def __getattr__(self, name: str) -> object:
        self.names_read.append(name)
        if name not in self._attributes:
            raise AttributeError(name)
        value = self._attributes[name]
        if isinstance(value, BaseException):
            raise value
        return value


WHOLE: dict[str, object] = {
    "name": "another.name",
    "loader": "a loader",
    "origin": "a file",
    "parent": "a package",
    "submodule_search_locations": ["a place"],
}
# attribute of the import spec -> name in the module
COPIED = {
    "loader": "__loader__",
    "origin": "__file__",
    "parent": "__package__",
    "submodule_search_locations": "__path__",
}
IN_NEW_MODULE = {"__loader__": None, "__package__": None}  # set by the interpreter


@isolated.test
def test_module_has_name_of_spec_and_no_docstring() -> None:
    for name in (MODULE, "another.name"):
        module = create_from_spec(Spec(**{**WHOLE, "name": name}))
        assert (module.__name__, module.__doc__) == (name, None)


@pytest.mark.parametrize("attribute", COPIED)
@isolated.test
def test_spec_attribute_is_copied_if_present(attribute: str) -> None:
    def copied(spec: dict[str, object]) -> dict[str, object]:
        module = create_from_spec(Spec(**spec))
        return {name: held for name, held in vars(module).items() if name in COPIED.values()}

    whole = {name: WHOLE[attribute] for attribute, name in COPIED.items()}
    name = COPIED[attribute]
    without: dict[str, object] = {each: held for each, held in whole.items() if each != name}
    if name in IN_NEW_MODULE:
        without[name] = None
    assert copied(WHOLE) == whole
    assert copied({key: value for key, value in WHOLE.items() if key != attribute}) == without
    assert copied({**WHOLE, attribute: AttributeError("missing")}) == without
    none = copied({**WHOLE, attribute: None})
    assert none == (without if name == "__path__" else {**without, name: None})
    for error in (ValueError("no value"), KeyboardInterrupt("stopped")):
        spec = Spec(**{**WHOLE, attribute: error})
        assert raises_exactly(type(error), create_from_spec, spec) is error


@isolated.test
def test_spec_attributes_are_read_and_copied_in_order() -> None:
    spec = Spec(**WHOLE)
    module = create_from_spec(spec)
    assert spec.names_read[-5:] == [*WHOLE]
    assert [name for name in vars(module) if name in ("__file__", "__path__")] == [
        "__file__",
        "__path__",
    ]


# Creation of the same module again


@isolated.test
def test_creation_before_execution_returns_new_object() -> None:
    assert create_module() is not create_module()


@isolated.test
def test_creation_after_execution_returns_same_module() -> None:
    module = importlib.import_module(MODULE)
    before = {name: held for name, held in vars(module).items() if name.startswith("__")}
    assert create_module("another.modules_util") is module
    assert module.__name__ == MODULE
    after = {name: held for name, held in vars(module).items() if name.startswith("__")}
    # The import machinery sets `__spec__`; nothing else changes.
    assert {name for name in after if after[name] is not before.get(name)} <= {"__spec__"}
    for _ in range(20):
        create_module()
    count = sys.getrefcount(module)
    for _ in range(200):
        create_module()
    assert sys.getrefcount(module) == count


@isolated.test
def test_create_slot_after_execution_changes_no_name() -> None:
    module: Any = importlib.import_module(MODULE)
    module._CHARSET = module.new_cookie_id = module.__file__ = "rebound"
    del module.Counters, module.get_token, module.__package__
    before = dict(vars(module))
    assert run_create_slot(SimpleNamespace(**WHOLE)) is module
    assert list(vars(module)) == list(before)
    assert [name for name, held in vars(module).items() if held is not before[name]] == []


@pytest.mark.parametrize("way", ["import", "creation"])
@isolated.test
def test_second_creation_restores_functions_only(way: str) -> None:
    """The create slot changes nothing, but CPython then adds the definition's methods again.

    A rebound or deleted function is the built-in function again; no other name is restored. The
    import machinery sets `__spec__`.
    """
    module: Any = importlib.import_module(MODULE)
    module._CHARSET = module.new_cookie_id = "rebound"
    del module.Counters, module.get_token
    before = dict(vars(module))
    if way == "import":
        del sys.modules[MODULE]
        assert importlib.import_module(MODULE) is module
    else:
        assert create_from_spec(SimpleNamespace(name=MODULE, origin="other file")) is module
    held = dict(vars(module))
    assert [name for name in before if name not in held] == []
    assert [name for name in held if name not in before] == ["get_token"]
    changed = {name for name in held if held[name] is not before.get(name)}
    functions = {row.name for row in FUNCTIONS}
    assert changed == (functions | {"__spec__"} if way == "import" else functions)
    assert {type(held[name]) for name in functions} == {BuiltinFunctionType}
    assert module.new_cookie_id() == 0  # of the native service without a simulator


@isolated.test
def test_creation_after_execution_reads_spec_name_only() -> None:
    importlib.import_module(MODULE)
    spec = Spec(**WHOLE)
    create_from_spec(spec)
    assert spec.names_read == ["name"]


# One interpreter for each process


def create_in_second_interpreter() -> str:
    """Create the module in a second interpreter; return what happens there."""
    import _xxsubinterpreters

    interpreters: Any = _xxsubinterpreters
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
    return os.read(read, 1000).decode()


@pytest.mark.parametrize("first", ["import", "creation", "failed import"])
@isolated.test
def test_second_interpreter_raises_import_error(first: str) -> None:
    if first == "import":
        importlib.import_module(MODULE)
    elif first == "creation":
        create_module()
    else:
        sandbox = SiblingSandbox()
        sandbox.break_("siblings['util.json'] = None")
        raises_exactly(ModuleNotFoundError, importlib.import_module, MODULE)
        sandbox.restore()
    assert create_in_second_interpreter() == f"ImportError: {INTERPRETER_CHANGE}"


@isolated.test
def test_main_interpreter_after_another_raises() -> None:
    assert create_in_second_interpreter() == f"created {MODULE}"
    assert str(raises_exactly(ImportError, create_module)) == INTERPRETER_CHANGE
