"""The interface that a system query selects from the reply with Python's item, iteration and
comparison semantics."""

from __future__ import annotations

from collections.abc import Iterator
from types import ModuleType, SimpleNamespace
from typing import Any

import pytest

from tests.support.assertions import line, raises_exactly, with_types
from tests.support.doubles import Failure, Recorder, raiser
from tests.support.query_cases import native_calls, without_releases
from veldarin_simulator import RawJSON, Simulator

PHYSICAL = "build_system_interface_physical"


def reply_of(*entries: object) -> list[dict[str, object]]:
    """A reply with these interfaces."""
    return [{"interface": list(entries)}]


A, B = {"name": "A", "speed": 1}, {"name": "B", "speed": 2}


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
        ([{"name": "\u00e9\u20ac\U0001f600"}, B], "\u00e9\u20ac\U0001f600", 0),
    ],
)
def test_first_matching_or_last_interface_is_returned(
    simulator: Simulator,
    module: ModuleType,
    entries: list[dict[str, object]],
    name: str | None,
    picked: Any,
) -> None:
    simulator.set_reply(PHYSICAL, reply_of(*entries))
    if picked == 0:
        picked = entries[0]
    assert with_types(module.list_system_interface_physical(name)) == with_types(picked)
    assert native_calls(simulator) == [
        (PHYSICAL, {"name": name}),
        ("JSONObject.release", {"name": name}),
        ("JSONObject.release", reply_of(*entries)),
    ]


def test_later_reply_elements_are_ignored(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply(PHYSICAL, [{"interface": [A], "other": 1}, {"interface": [B]}])
    assert module.list_system_interface_physical("B") == A


def test_name_is_always_sent(simulator: Simulator, module: ModuleType) -> None:
    made = simulator.on_create = Recorder()
    simulator.set_reply(PHYSICAL, reply_of(A))
    name = "".join(["na", "me"])
    module.list_system_interface_physical(name)
    request = made.positional[0][0][0]
    assert list(request) == ["name"]
    assert request["name"] is name


@pytest.mark.parametrize("name", ["A", "", None])
def test_empty_interface_list_raises_unbound_local(
    simulator: Simulator, module: ModuleType, name: str | None
) -> None:
    simulator.set_reply(PHYSICAL, reply_of())
    error = raises_exactly(UnboundLocalError, module.list_system_interface_physical, name)
    assert str(error) == "local variable 'data' referenced before assignment"
    assert line(error, "list_system_interface_physical") == 143
    assert native_calls(simulator) == [
        (PHYSICAL, {"name": name}),
        ("JSONObject.release", {"name": name}),
        ("JSONObject.release", reply_of()),
    ]


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
    assert line(error, "list_system_interface_physical") == at
    assert without_releases(simulator) == [(PHYSICAL, {"name": "A"})]
    assert len(simulator.call_log) == 1, "nothing was released by the method table"


@pytest.mark.parametrize("reply", [[{"interface": ""}], [{"interface": {}}]])
def test_empty_iterable_raises_unbound_local(
    simulator: Simulator, module: ModuleType, reply: object
) -> None:
    simulator.set_reply(PHYSICAL, reply)
    error = raises_exactly(UnboundLocalError, module.list_system_interface_physical, "A")
    assert line(error, "list_system_interface_physical") == 143


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


def test_mapping_with_key_zero_is_accepted(module: ModuleType, parsed: SimpleNamespace) -> None:
    parsed.value = {0: {"interface": [A, B]}}
    assert module.list_system_interface_physical("B") is B


def test_iteration_stops_at_first_equal_name(module: ModuleType, parsed: SimpleNamespace) -> None:
    given: list[object] = []

    def entries() -> Iterator[object]:
        for data in (A, B, {"name": "C"}):
            given.append(data)
            yield data

    parsed.value = [{"interface": entries()}]
    assert module.list_system_interface_physical("B") is B
    assert given == [A, B]


def test_sequence_protocol_is_iterated(module: ModuleType, parsed: SimpleNamespace) -> None:
    class Sequence:
        def __getitem__(self, index: int) -> object:
            return [A, B][index]

    parsed.value = ({"interface": Sequence()},)
    assert module.list_system_interface_physical("?") is B


def test_growing_list_is_iterated_to_its_end(module: ModuleType, parsed: SimpleNamespace) -> None:
    class Grows(str):
        __hash__ = str.__hash__

        def __eq__(self, other: object) -> bool:
            entries.append(B)
            return False

    entries: list[object] = [{"name": Grows("A")}]
    parsed.value = [{"interface": entries}]
    assert module.list_system_interface_physical("?") is B
    assert len(entries) == 2


@pytest.mark.parametrize("name", ["A", None])
def test_name_comparison_result_is_tested_once(
    module: ModuleType, parsed: SimpleNamespace, name: str | None
) -> None:
    evaluated: list[object] = []

    class Reply:
        def __init__(self, truth: bool) -> None:
            self.truth = truth

        def __bool__(self) -> bool:
            evaluated.append("truth")
            return self.truth

    class Name:
        def __init__(self, truth: bool) -> None:
            self.truth = truth

        def __eq__(self, other: object) -> Any:
            evaluated.append(other)
            return Reply(self.truth)

    chosen = {"name": Name(True)}
    parsed.value = [{"interface": [{"name": Name(False)}, chosen, {"name": Name(True)}]}]
    assert module.list_system_interface_physical(name) is chosen
    assert evaluated == [name, "truth", name, "truth"]


def test_str_subclass_name_uses_its_own_comparison(
    module: ModuleType, parsed: SimpleNamespace
) -> None:
    class Different(str):
        __hash__ = str.__hash__

        def __eq__(self, other: object) -> bool:
            return False

    parsed.value = [{"interface": [{"name": Different("A")}, B]}]
    assert module.list_system_interface_physical("A") is B


class Broken:
    """Raise at the selected step."""

    def __init__(self, where: str, error: Exception) -> None:
        self.where = where
        self.error = error

    def _step(self, name: str, value: object) -> Any:
        if name == self.where:
            raise self.error
        return value

    def __getitem__(self, key: object) -> object:
        return self._step(f"item {key!r}", self)

    def __iter__(self) -> Broken:
        return self._step("iter", self)

    def __next__(self) -> Broken:
        return self._step("next", self)

    def __eq__(self, other: object) -> Broken:  # type: ignore[override]
        return self._step("equal", self)

    def __bool__(self) -> bool:
        return self._step("truth", True)


@pytest.mark.parametrize(
    "where, at",
    [
        ("item 0", 138),
        ("item 'interface'", 138),
        ("iter", 138),
        ("next", 138),
        ("item 'name'", 139),
        ("equal", 139),
        ("truth", 139),
    ],
)
def test_failing_selection_step_is_at_its_line(
    simulator: Simulator, module: ModuleType, parsed: SimpleNamespace, where: str, at: int
) -> None:
    error = Failure(where)
    parsed.value = Broken(where, error)
    assert raises_exactly(Failure, module.list_system_interface_physical, "A") is error
    assert line(error, "list_system_interface_physical") == at
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
    assert line(error, "list_system_interface_physical") == 138


@pytest.mark.parametrize("number, at", [(1, 141), (2, 142)])
def test_releases_come_between_selection_and_result(
    simulator: Simulator, module: ModuleType, number: int, at: int
) -> None:
    error = Failure()
    released = Recorder(lambda text: raiser(error)() if len(released.calls) == number else None)
    simulator.on_release = released
    simulator.set_reply(PHYSICAL, reply_of())
    assert raises_exactly(Failure, module.list_system_interface_physical, "A") is error
    assert line(error, "list_system_interface_physical") == at


def test_additional_reply_fields_are_kept(simulator: Simulator, module: ModuleType) -> None:
    text = '[{"interface": [{"name": "A", "z": [1.50, {"y": null}], "a": "b"}], "more": {}}, 5]'
    simulator.set_reply(PHYSICAL, RawJSON(text))
    picked = module.list_system_interface_physical("A")
    assert with_types(picked) == with_types({"name": "A", "z": [1.5, {"y": None}], "a": "b"})
