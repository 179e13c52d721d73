"""The C-level interfaces of the simulated sibling modules."""

from __future__ import annotations

import ctypes
import importlib
import json
from typing import Any

import pytest

from tests.simulator.native import (
    LG_STATE,
    POINTER_SIZE,
    RELEASE,
    Native,
    capsule_pointer,
    fail,
    release,
    value_field,
    value_of,
)
from veldarin_simulator import NativeCall, RawJSON, Simulator


def strtcpy(size: int, source: bytes) -> tuple[int, bytes]:
    """Return the number of bytes that util.string copies, and the destination."""
    exported = importlib.import_module("util.string").__pyx_capi__
    copy = ctypes.PYFUNCTYPE(ctypes.c_int, ctypes.c_char_p, ctypes.c_int, ctypes.c_char_p)(
        capsule_pointer(exported["strtcpy"], b"int (char *, int, char const *)")
    )
    destination = ctypes.create_string_buffer(b"........", 8)
    return copy(destination, size, source), destination.raw


@pytest.mark.parametrize(
    ("module", "name", "signature"),
    [
        ("util.string", "strtcpy", b"int (char *, int, char const *)"),
        ("veldarin.modules.modules", "get_preference_cookie_secret_path", b"char *(void)"),
        ("migbase.migbase", "WARM_START_PATH", b"char *"),
    ],
)
def test_c_level_name_is_capsule_with_signature(
    simulator: Simulator, module: str, name: str, signature: bytes
) -> None:
    exported = importlib.import_module(module).__pyx_capi__
    assert capsule_pointer(exported[name], signature)


def test_warm_start_path_is_a_variable(simulator: Simulator) -> None:
    exported = importlib.import_module("migbase.migbase").__pyx_capi__
    address = capsule_pointer(exported["WARM_START_PATH"], b"char *")
    assert ctypes.c_char_p.from_address(address).value == b"/var/run/warm_start"


def test_json_object_layout_is_head_vtable_pointer(json_object: Any) -> None:
    assert json_object.__basicsize__ == object.__basicsize__ + 2 * POINTER_SIZE
    table = capsule_pointer(json_object.__dict__["__pyx_vtable__"], None)
    instance = json_object({})
    assert ctypes.c_void_p.from_address(id(instance) + object.__basicsize__).value == table


@pytest.mark.parametrize(
    ("size", "source", "copied"),
    [
        (8, b"abc", (3, b"abc\0....")),
        (4, b"abc", (3, b"abc\0....")),
        (3, b"abc", (2, b"ab\0.....")),
        (1, b"abc", (0, b"\0.......")),
        (0, b"abc", (0, b"........")),
        (-1, b"abc", (0, b"........")),
        (8, b"", (0, b"\0.......")),
    ],
)
def test_strtcpy_copies_within_bounds(
    simulator: Simulator, size: int, source: bytes, copied: tuple[int, bytes]
) -> None:
    assert strtcpy(size, source) == copied


@pytest.mark.parametrize(
    "request_data",
    [
        {},
        {"policy_id": 7, "flag": False, "none": None},
        {"big": 2**64 - 1, "least": -(2**63), "float": 0.1, "text": "é\0\u20ac"},
        {"nested": [1, [2, {"a": ()}], (3,)]},
    ],
    ids=repr,
)
def test_request_renders_as_its_json(json_object: Any, request_data: dict[str, Any]) -> None:
    text = str(json_object(request_data))
    assert json.loads(text) == json.loads(json.dumps(request_data))


def test_float_renders_as_its_repr(json_object: Any) -> None:
    assert str(json_object({"a": 0.1})) == '{ "a": 0.1 }'


def test_subclasses_of_json_types_are_accepted(json_object: Any) -> None:
    class Text(str):
        pass

    class Mapping(dict):
        pass

    assert str(json_object(Mapping({Text("k"): Text("v")}))) == '{ "k": "v" }'


RECURSIVE: dict[str, Any] = {}
RECURSIVE["self"] = [RECURSIVE]


@pytest.mark.parametrize(
    ("arguments", "error", "text"),
    [
        (([],), TypeError, "JSONObject() argument must be dict, not list"),
        (({}, {}), TypeError, "JSONObject() takes at most 1 argument (2 given)"),
        (({"a": [1, {"b": {1}}]},), TypeError, "set has no JSON form"),
        (({"a": 1, 2: 3},), TypeError, "JSON keys must be str, not int"),
        (({"a": {}, "b": 2**64},), OverflowError, None),
        (({"a": "x", "b": "\ud800"},), UnicodeEncodeError, None),
        ((RECURSIVE,), RecursionError, None),
    ],
    ids=["list", "two", "set", "key", "big", "surrogate", "recursive"],
)
def test_request_without_json_form_raises(
    simulator: Simulator,
    json_object: Any,
    arguments: tuple[Any, ...],
    error: type[Exception],
    text: str | None,
) -> None:
    with pytest.raises(error) as raised:
        json_object(*arguments)
    assert text is None or str(raised.value) == text
    assert simulator.live_objects.json_objects == 0


def test_object_without_argument_renders_as_null(simulator: Simulator, json_object: Any) -> None:
    empty = json_object()
    assert value_of(empty) is None
    assert str(empty) == "null"
    assert release(empty) is None
    assert simulator.call_log == [NativeCall(RELEASE, request="null")]


def test_default_response_is_borrowed(simulator: Simulator, json_object: Any) -> None:
    simulator.default_response = RawJSON('{"x": 1}')
    first, second = json_object(), json_object()
    assert str(first) == '{"x": 1}'
    release(first)
    assert str(first) == "null"
    assert str(second) == '{"x": 1}'  # still alive
    simulator.default_response = None
    assert str(second) == '{"x": 1}'
    release(second)
    del first, second
    assert str(json_object()) == "null"
    assert simulator.live_objects.json_objects == 0


@pytest.mark.parametrize("default", [None, RawJSON('{"x": 1}')])
@pytest.mark.parametrize("released", [True, False])
def test_reply_replacing_default_response_is_owned(
    simulator: Simulator,
    native: Native,
    json_object: Any,
    default: RawJSON | None,
    released: bool,
) -> None:
    simulator.default_response = default
    simulator.set_reply(LG_STATE, [1])
    response = json_object()
    value_field(response).value = native.json(LG_STATE, None, None)
    assert simulator.live_objects.json_objects == 1
    if released:
        release(response)
        assert simulator.live_objects.json_objects == 0
        assert simulator.call_log[-1] == NativeCall(RELEASE, request="[1]")
    del response
    assert simulator.live_objects.json_objects == 0


def test_on_create_gets_the_arguments_and_may_raise(simulator: Simulator, json_object: Any) -> None:
    seen: list[tuple[Any, ...]] = []
    simulator.on_create = seen.append
    json_object({"a": 1})
    json_object()
    assert seen == [({"a": 1},), ()]
    simulator.on_create = fail
    with pytest.raises(LookupError, match="no reply"):
        json_object({"a": 1})
    assert simulator.live_objects.json_objects == 0
    simulator.on_create = None
    json_object({})


def test_on_release_gets_the_text_and_may_raise(simulator: Simulator, json_object: Any) -> None:
    seen: list[str] = []
    instance = json_object({"a": 1})
    simulator.on_release = fail
    with pytest.raises(LookupError, match="no reply"):
        release(instance)
    assert str(instance) == '{ "a": 1 }'  # unchanged
    simulator.on_release = seen.append
    release(instance)
    assert seen == ['{ "a": 1 }']
    assert [call.service for call in simulator.call_log] == [RELEASE, RELEASE]
