"""The interface that a system query selects from the reply with Python's item, iteration and
comparison semantics."""

from __future__ import annotations

import ctypes
from collections.abc import Iterator
from types import ModuleType, SimpleNamespace
from typing import Any, Callable

import pytest

from tests.support.assertions import line, raises_exactly, with_types
from tests.support.doubles import CountingBool, Failure, Recorder, raiser
from tests.support.query_cases import native_calls, without_releases
from veldarin_simulator import Simulator

FUNCTION = "list_system_interface_physical"
PHYSICAL = "build_system_interface_physical"


def calls_with(name: str | None, reply: object) -> list[tuple[str, object]]:
    """The native calls of a query that sends this name and gets this reply."""
    released = [("JSONObject.release", {"name": name}), ("JSONObject.release", reply)]
    return [(PHYSICAL, {"name": name}), *released]


A, B = {"name": "A", "speed": 1}, {"name": "B", "speed": 2}
UNICODE = {"name": "\u00e9\u20ac\U0001f600"}
NESTED = {"name": "A", "z": [1.5, {"y": None}], "a": "b"}


@pytest.mark.parametrize(
    "entries, name, picked",
    [
        ([A, B], "A", A),
        ([A, B], "B", B),
        ([A, B], "C", B),
        ([B, A], "C", A),
        ([A], "C", A),
        ([A, B], "", B),
        ([A, B], "a", B),
        ([A, B], None, B),
        ([A, {"name": None, "id": 3}, B], None, {"name": None, "id": 3}),
        ([{"name": "None"}, B], None, B),
        ([A, {"name": "A", "speed": 9}], "A", A),
        ([{"name": 5}, A, B], "A", A),
        ([A, {"no": "name"}], "A", A),
        ([NESTED], "A", NESTED),
        ([UNICODE, B], UNICODE["name"], UNICODE),
    ],
)
def test_first_matching_or_last_interface_is_returned(
    simulator: Simulator,
    module: ModuleType,
    entries: list[dict[str, object]],
    name: str | None,
    picked: Any,
) -> None:
    reply = [{"interface": entries}, {"interface": [B], "later": "elements are ignored"}]
    simulator.set_reply(PHYSICAL, reply)
    assert with_types(module.list_system_interface_physical(name)) == with_types(picked)
    assert native_calls(simulator) == calls_with(name, reply)


@pytest.mark.parametrize("name", ["A", "", None])
@pytest.mark.parametrize("interfaces", [[], "", {}])
def test_empty_interfaces_raise_unbound_local(
    simulator: Simulator, module: ModuleType, interfaces: object, name: str | None
) -> None:
    reply = [{"interface": interfaces}]
    simulator.set_reply(PHYSICAL, reply)
    error = raises_exactly(UnboundLocalError, module.list_system_interface_physical, name)
    assert str(error) == "local variable 'data' referenced before assignment"
    assert line(error, FUNCTION) == 143
    assert native_calls(simulator) == calls_with(name, reply)


@pytest.mark.parametrize(
    "reply, kind, text, at",
    [
        (None, TypeError, "'NoneType' object is not subscriptable", 138),
        (5, TypeError, "'int' object is not subscriptable", 138),
        ({}, KeyError, "0", 138),
        ({"0": 1}, KeyError, "0", 138),
        ([], IndexError, "list index out of range", 138),
        ("", IndexError, "string index out of range", 138),
        ([{}], KeyError, "'interface'", 138),
        ([[1]], TypeError, "list indices must be integers or slices, not str", 138),
        (["text"], TypeError, "string indices must be integers", 138),
        ("text", TypeError, "string indices must be integers", 138),
        ([None], TypeError, "'NoneType' object is not subscriptable", 138),
        ([{"interface": None}], TypeError, "'NoneType' object is not iterable", 138),
        ([{"interface": 5}], TypeError, "'int' object is not iterable", 138),
        ([{"interface": [5]}], TypeError, "'int' object is not subscriptable", 139),
        ([{"interface": [None]}], TypeError, "'NoneType' object is not subscriptable", 139),
        ([{"interface": [{}]}], KeyError, "'name'", 139),
        ([{"interface": [B, {"Name": "A"}]}], KeyError, "'name'", 139),
        ([{"interface": [[]]}], TypeError, "list indices must be integers or slices, not str", 139),
        ([{"interface": "text"}], TypeError, "string indices must be integers", 139),
        ([{"interface": {"key": A}}], TypeError, "string indices must be integers", 139),
    ],
)
def test_reply_of_other_layout_fails_at_its_step(
    simulator: Simulator,
    module: ModuleType,
    reply: object,
    kind: type[Exception],
    text: str,
    at: int,
) -> None:
    simulator.set_reply(PHYSICAL, reply)
    error = raises_exactly(kind, module.list_system_interface_physical, "A")
    assert str(error) == text
    assert line(error, FUNCTION) == at
    assert without_releases(simulator) == [(PHYSICAL, {"name": "A"})]
    assert len(simulator.call_log) == 1, "nothing was released by the method table"


# A replaced parser may return any object; the statements then work as in Python


@pytest.fixture
def parsed(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> SimpleNamespace:
    """A JSON parser that returns its attribute `value`."""
    holder = SimpleNamespace(value=None)
    monkeypatch.setattr(module, "json", SimpleNamespace(loads=lambda text: holder.value))
    return holder


def test_items_are_read_through_object_protocol(
    module: ModuleType, parsed: SimpleNamespace
) -> None:
    events: list[object] = []

    class Recording:
        def __init__(self, item: object) -> None:
            self.item = item

        def __getitem__(self, key: object) -> object:
            events.append((type(key), key))
            return self.item

    data = Recording("A")
    parsed.value = Recording(Recording((data,)))
    assert module.list_system_interface_physical("A") is data
    assert events == [(int, 0), (str, "interface"), (str, "name")]


class Sequence:
    """An object that only the sequence protocol can iterate."""

    def __getitem__(self, index: int) -> object:
        return [A, B][index]


class Compared:
    """A name whose comparison calls a function."""

    __hash__ = None  # type: ignore[assignment]

    def __init__(self, equals: Callable[[object], Any]) -> None:
        self.equals = equals

    def __eq__(self, other: object) -> Any:
        return self.equals(other)


class Different(str):
    """A name that equals no other."""

    __hash__ = str.__hash__

    def __eq__(self, other: object) -> bool:
        return False


@pytest.mark.parametrize(
    "reply",
    [
        {0: {"interface": [A, B]}},
        ({"interface": Sequence()},),
        [{"interface": [{"name": Different("B")}, B]}],
    ],
    ids=["key zero", "sequence protocol", "comparison of a str subclass"],
)
def test_parsed_objects_are_used_as_in_python(
    module: ModuleType, parsed: SimpleNamespace, reply: object
) -> None:
    parsed.value = reply
    assert module.list_system_interface_physical("B") is B


def unready(text: str) -> str:
    """Return a string in the storage of the old C interface, which has no compact form yet."""
    create = ctypes.PYFUNCTYPE(ctypes.py_object, ctypes.c_wchar_p, ctypes.c_ssize_t)
    storage = ctypes.PYFUNCTYPE(ctypes.c_void_p, ctypes.py_object)
    string: str = create(("PyUnicode_FromUnicode", ctypes.pythonapi))(None, len(text))
    wide = ctypes.create_unicode_buffer(text)
    begin = storage(("PyUnicode_AsUnicode", ctypes.pythonapi))(string)
    ctypes.memmove(begin, wide, len(text) * ctypes.sizeof(ctypes.c_wchar))
    return string


def test_names_that_are_not_ready_are_compared(module: ModuleType, parsed: SimpleNamespace) -> None:
    entries = [{"name": unready("port1")}, {"name": unready("port2")}, A]
    parsed.value = [{"interface": entries}]
    assert module.list_system_interface_physical("port2") is entries[1]
    parsed.value = [{"interface": [A, {"name": "port2"}, B]}]
    assert module.list_system_interface_physical(unready("port2"))["name"] == "port2"


def test_iteration_stops_at_first_equal_name(module: ModuleType, parsed: SimpleNamespace) -> None:
    interfaces = iter([A, B, {"name": "C"}])
    parsed.value = [{"interface": interfaces}]
    assert module.list_system_interface_physical("B") is B
    assert [*interfaces] == [{"name": "C"}]


def test_growing_list_is_iterated_to_its_end(module: ModuleType, parsed: SimpleNamespace) -> None:
    entries: list[object] = [{"name": Compared(lambda other: entries.append(B))}]
    parsed.value = [{"interface": entries}]
    assert module.list_system_interface_physical("?") is B
    assert len(entries) == 2


@pytest.mark.parametrize("name", ["A", None])
def test_name_comparison_result_is_tested_once(
    module: ModuleType, parsed: SimpleNamespace, name: str | None
) -> None:
    truths = [CountingBool(truth) for truth in (False, True, True)]
    compared = Recorder(lambda other: truths[len(compared.calls) - 1])
    entries = [{"name": Compared(compared)} for _ in truths]
    parsed.value = [{"interface": entries}]
    assert module.list_system_interface_physical(name) is entries[1]
    assert compared.positional == [(name,), (name,)]
    assert [truth.bool_calls for truth in truths] == [1, 1, 0]


@pytest.mark.parametrize(
    "step, at",
    [
        ("item 0", 138),
        ("item 'interface'", 138),
        ("__iter__", 138),
        ("__next__", 138),
        ("item 'name'", 139),
        ("__eq__", 139),
        ("__bool__", 139),
    ],
)
def test_failing_selection_step_is_at_its_line(
    simulator: Simulator, module: ModuleType, parsed: SimpleNamespace, step: str, at: int
) -> None:
    error = Failure(step)

    class Broken:
        """An object of which one step fails; the others give the object itself."""

        def __getitem__(self, key: object) -> object:
            return raiser(error)() if step == f"item {key!r}" else self

    for name in ("__iter__", "__next__", "__eq__", "__bool__"):
        setattr(Broken, name, raiser(error) if name == step else lambda broken, *given: broken)
    parsed.value = Broken()
    assert raises_exactly(Failure, module.list_system_interface_physical, "A") is error
    assert line(error, FUNCTION) == at
    assert [service for service, _ in native_calls(simulator)] == [PHYSICAL]


def test_later_iteration_error_is_at_loop_line(
    simulator: Simulator, module: ModuleType, parsed: SimpleNamespace
) -> None:
    error = Failure()

    def entries() -> Iterator[object]:
        yield B
        raise error

    parsed.value = [{"interface": entries()}]
    assert raises_exactly(Failure, module.list_system_interface_physical, "A") is error
    assert line(error, FUNCTION) == 138


@pytest.mark.parametrize("number, at", [(1, 141), (2, 142)])
def test_releases_come_between_selection_and_result(
    simulator: Simulator, module: ModuleType, number: int, at: int
) -> None:
    error = Failure()
    released = Recorder(lambda text: raiser(error)() if len(released.calls) == number else None)
    simulator.on_release = released
    simulator.set_reply(PHYSICAL, [{"interface": []}])
    assert raises_exactly(Failure, module.list_system_interface_physical, "A") is error
    assert line(error, FUNCTION) == at
