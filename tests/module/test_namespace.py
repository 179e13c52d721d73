"""The module's namespace: exactly these names, with these values, in this order."""

from __future__ import annotations

import builtins
import copy
import importlib
import logging
import threading
from types import BuiltinFunctionType, ModuleType
from typing import Any

import pytest
import ujson

from tests.support import isolated
from tests.support.assertions import MODULE
from tests.support.fake_siblings import SiblingSandbox, create_module, exec_module
from tests.support.function_table import FUNCTIONS, Function

INTERPRETERS_OWN = {
    "__name__",
    "__doc__",
    "__package__",
    "__loader__",
    "__spec__",
    "__file__",
    "__builtins__",
}

# Names other than functions, in the order in which the module-level statements bind them.
BOUND_IN_ORDER = [
    "__builtins__",
    "serial_number_ascii",
    "hexlify",
    "namedtuple",
    "getLogger",
    "urandom",
    "Path",
    "bytes_",
    "text_",
    "Lock",
    "json",
    "CFunctionError",
    "copy",
    "_logger",
    "_INVALID_INDEX",
    "_interface_count",
    "_interface_lock",
    "_CHARSET",
    "Counters",
    "__test__",
]

every_function = pytest.mark.parametrize("function", FUNCTIONS, ids=lambda row: row.name)


def fresh_names() -> list[str]:
    """The names in the order of the namespace, before any test touched it."""
    return list(vars(importlib.import_module(MODULE)))


@pytest.fixture(scope="module")
def names() -> list[str]:
    ordered: list[str] = isolated.value(fresh_names)
    return ordered


def test_namespace_holds_exactly_these_names(names: list[str]) -> None:
    functions = {function.name for function in FUNCTIONS}
    assert set(names) == INTERPRETERS_OWN | set(BOUND_IN_ORDER) | functions


def test_functions_are_in_table_order(names: list[str]) -> None:
    functions = {function.name for function in FUNCTIONS}
    assert [name for name in names if name in functions] == [row.name for row in FUNCTIONS]


def test_names_are_bound_in_statement_order(names: list[str]) -> None:
    bound = set(BOUND_IN_ORDER)
    assert [name for name in names if name in bound] == BOUND_IN_ORDER


def test_test_dictionary_is_bound_last(names: list[str]) -> None:
    assert names[-1] == "__test__"


@pytest.mark.parametrize(
    ("name", "source", "attribute"),
    [
        ("serial_number_ascii", "migbase.cmdbapi.cmdbapi_util", "serial_number_ascii"),
        ("hexlify", "binascii", "hexlify"),
        ("namedtuple", "collections", "namedtuple"),
        ("getLogger", "logging", "getLogger"),
        ("urandom", "os", "urandom"),
        ("Path", "pathlib", "Path"),
        ("bytes_", "pyramid.compat", "bytes_"),
        ("text_", "pyramid.compat", "text_"),
        ("Lock", "threading", "Lock"),
        ("CFunctionError", "util.errors", "CFunctionError"),
    ],
)
@pytest.mark.filterwarnings("ignore::DeprecationWarning")
def test_imported_name_is_object_of_its_source(
    module: ModuleType, name: str, source: str, attribute: str
) -> None:
    assert getattr(module, name) is getattr(importlib.import_module(source), attribute)


@pytest.mark.parametrize(
    ("name", "value"),
    [
        ("json", ujson),
        ("copy", copy),
        ("__builtins__", builtins),
        ("_logger", logging.getLogger(MODULE)),
    ],
)
def test_name_is_bound_to_expected_object(module: ModuleType, name: str, value: object) -> None:
    assert getattr(module, name) is value


@pytest.mark.parametrize(
    ("name", "value"),
    [
        ("_INVALID_INDEX", "Invalid index %s requested (count: %s)"),
        ("_interface_count", 0),
        ("_CHARSET", "utf-8"),
        ("__test__", {}),
        ("__name__", MODULE),
        ("__package__", "veldarin.modules"),
        ("__doc__", None),
        pytest.param("__file__", str(isolated.MODULE_PATH), id="__file__"),
    ],
)
def test_name_has_expected_type_and_value(module: ModuleType, name: str, value: object) -> None:
    held = getattr(module, name)
    assert (type(held), held) == (type(value), value)


def test_interface_lock_is_unlocked_lock(module: ModuleType) -> None:
    assert type(module._interface_lock) is type(threading.Lock())
    assert module._interface_lock.locked() is False


def test_counters_is_named_tuple_with_expected_fields(module: ModuleType) -> None:
    assert module.Counters.__name__ == "Counters"
    assert module.Counters.__bases__ == (tuple,)
    assert module.Counters._fields == (
        "bytes_sent",
        "bytes_recv",
        "packets_sent",
        "packets_recv",
        "errin",
        "errout",
        "dropin",
        "dropout",
    )
    assert module.Counters._field_defaults == {}


def test_counters_module_is_importing_module() -> None:
    def execute_directly() -> str:
        SiblingSandbox()
        module: Any = create_module()
        exec_module(module)  # the nearest Python code is that of `execute`
        name: str = module.Counters.__module__
        return name

    def import_normally() -> list[object]:
        import pickle

        counters: Any = importlib.import_module(MODULE).Counters
        try:
            pickle.dumps(counters(*range(8)))
        except pickle.PicklingError:
            return [counters.__module__, "not pickled"]
        return [counters.__module__, "pickled"]

    assert isolated.value(execute_directly) == "tests.support.fake_siblings"
    assert isolated.value(import_normally) == ["importlib._bootstrap", "not pickled"]


def test_only_table_functions_belong_to_module(module: ModuleType) -> None:
    own = [
        name
        for name, held in vars(module).items()
        if callable(held) and getattr(held, "__module__", None) == MODULE
    ]
    assert sorted(own) == sorted(row.name for row in FUNCTIONS)


@every_function
def test_function_is_builtin_without_docstring(module: ModuleType, function: Function) -> None:
    held: Any = getattr(module, function.name)
    kind: object = type(held)
    assert kind is BuiltinFunctionType
    assert held.__module__ == MODULE
    assert held.__doc__ is None
    assert held.__text_signature__ is None


@every_function
def test_function_has_name_and_no_self(module: ModuleType, function: Function) -> None:
    held: Any = getattr(module, function.name)
    assert (held.__name__, held.__qualname__) == (function.name, function.name)
    assert held.__self__ is None
    assert repr(held) == f"<built-in function {function.name}>"


def test_reserved_names_are_not_used_by_functions() -> None:
    def call_without_them() -> list[object]:
        from veldarin_simulator import Simulator

        with Simulator(live=False) as simulator:
            module = simulator.module
            for name in ("_INVALID_INDEX", "_interface_count", "_interface_lock", "Counters"):
                delattr(module, name)
            simulator.set_reply("get_cli_cmd_output", "Address\n")
            simulator.set_reply("build_switch_lg_state", [1])
            return [
                module.get_system_arp_result(),
                module.list_switch_lg_state(),
                module.switch_mclag_icl(),
                module.new_cookie_id(),
            ]

    assert isolated.value(call_without_them) == [[], [1], None, 0]
