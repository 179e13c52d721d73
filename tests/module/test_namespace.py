"""The module's namespace: exactly these names, with these values, in this order."""

from __future__ import annotations

import binascii
import builtins
import collections
import copy
import importlib
import logging
import os
import pathlib
import pickle
import pkgutil
import threading
from types import BuiltinFunctionType, ModuleType
from typing import Any

import pytest
import ujson

from tests.support import isolated
from tests.support.assertions import MODULE, raises_exactly
from tests.support.fake_siblings import SiblingSandbox, create_module, exec_module
from tests.support.function_table import FUNCTIONS, Function
from tests.support.module_patch import Patch
from veldarin_simulator import Simulator

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


@isolated.test
def test_namespace_holds_exactly_these_names_in_order() -> None:
    names = list(vars(importlib.import_module(MODULE)))
    functions = [row.name for row in FUNCTIONS]
    assert set(names) == {*INTERPRETERS_OWN, *BOUND_IN_ORDER, *functions}
    assert [name for name in names if name in functions] == functions
    assert [name for name in names if name in BOUND_IN_ORDER] == BOUND_IN_ORDER
    assert names[-1] == "__test__"


@pytest.mark.parametrize(
    ("name", "value"),
    [
        ("serial_number_ascii", "migbase.cmdbapi.cmdbapi_util.serial_number_ascii"),
        ("hexlify", binascii.hexlify),
        ("namedtuple", collections.namedtuple),
        ("getLogger", logging.getLogger),
        ("urandom", os.urandom),
        ("Path", pathlib.Path),
        ("bytes_", "pyramid.compat.bytes_"),
        ("text_", "pyramid.compat.text_"),
        ("Lock", threading.Lock),
        ("CFunctionError", "util.errors.CFunctionError"),
        ("json", ujson),
        ("copy", copy),
        ("__builtins__", builtins),
        ("_logger", logging.getLogger(MODULE)),
    ],
)
def test_name_is_bound_to_expected_object(module: ModuleType, name: str, value: object) -> None:
    expected = pkgutil.resolve_name(value) if isinstance(value, str) else value
    assert getattr(module, name) is expected


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


@isolated.test
def test_counters_module_is_executing_module() -> None:
    SiblingSandbox()
    module: Any = create_module()
    exec_module(module)  # the nearest Python code is that of `exec_module`
    assert module.Counters.__module__ == "tests.support.fake_siblings"


@isolated.test
def test_counters_of_normal_import_is_not_pickled() -> None:
    counters: Any = importlib.import_module(MODULE).Counters
    assert counters.__module__ == "importlib._bootstrap"
    raises_exactly(pickle.PicklingError, pickle.dumps, counters(*range(8)))


def test_only_table_functions_belong_to_module(module: ModuleType) -> None:
    own = [
        name
        for name, held in vars(module).items()
        if callable(held) and getattr(held, "__module__", None) == MODULE
    ]
    assert sorted(own) == sorted(row.name for row in FUNCTIONS)


@pytest.mark.parametrize("function", FUNCTIONS, ids=lambda row: row.name)
def test_function_is_builtin_with_name_only(module: ModuleType, function: Function) -> None:
    held: Any = getattr(module, function.name)
    kind: object = type(held)
    assert kind is BuiltinFunctionType
    assert (held.__name__, held.__qualname__) == (function.name, function.name)
    assert repr(held) == f"<built-in function {function.name}>"
    assert held.__module__ == MODULE
    assert (held.__self__, held.__doc__, held.__text_signature__) == (None, None, None)


def test_reserved_names_are_not_used_by_functions(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    for name in ("_INVALID_INDEX", "_interface_count", "_interface_lock", "Counters"):
        patch.delete(name)
    simulator.set_reply("get_cli_cmd_output", "Address\n")
    simulator.set_reply("build_switch_lg_state", [1])
    assert module.get_system_arp_result() == []
    assert module.list_switch_lg_state() == [1]
    assert module.switch_mclag_icl() is None
    assert module.new_cookie_id() == 0
