"""Replies of the native services, called without the module."""

from __future__ import annotations

import ctypes
import importlib
import json
import sys
import threading
from collections.abc import Iterator
from typing import Any

import pytest

from tests.simulator.native import CAPTURE_SERVICES, LG_STATE, Native, fail, release, value_of
from veldarin_simulator import RawJSON, Simulator, native_library

IDENTIFIER = "aps_get_new_cookie_id"


@pytest.mark.parametrize(
    "value",
    [[{"a": [True, None, 'é/"\\\u2028']}], {}, [], 0, -(2**63), 2**64 - 1, "text", True, 1.5],
    ids=repr,
)
def test_json_reply_equals_the_value(simulator: Simulator, native: Native, value: object) -> None:
    simulator.set_reply(LG_STATE, value)
    assert json.loads(native.json_text(LG_STATE)) == value


@pytest.mark.parametrize("number", [0.1, 1e300, -2.5e-7, 1.10])
def test_root_number_keeps_its_spelling(
    simulator: Simulator, native: Native, number: float
) -> None:
    simulator.set_reply(LG_STATE, number)
    assert native.json_text(LG_STATE) == repr(number).encode()


@pytest.mark.parametrize("setter", ["set_reply", "set_fixed_reply"])
def test_none_is_a_null_pointer(simulator: Simulator, native: Native, setter: str) -> None:
    for service in (LG_STATE, "get_cli_cmd_output"):
        getattr(simulator, setter)(service, None)
    assert native.json(LG_STATE, None, None) is None
    assert native.command(b"x") is None


@pytest.mark.parametrize("text", ["{oops", "", "null", " [1] ", b"\xff{", "[1]\0junk"])
def test_raw_json_renders_exactly_up_to_nul(
    simulator: Simulator, native: Native, text: str | bytes
) -> None:
    simulator.set_reply(LG_STATE, RawJSON(text))
    encoded = text if isinstance(text, bytes) else text.encode()
    assert native.json_text(LG_STATE) == encoded.partition(b"\0")[0]


def test_each_call_returns_a_new_object(simulator: Simulator, native: Native) -> None:
    simulator.set_reply(LG_STATE, [1])
    first, second = (native.json(LG_STATE, None, None) for _ in range(2))
    assert first != second
    native.put(first)
    assert native.rendered(second) == b"[ 1 ]"
    native.put(second)


def test_reply_ignores_later_changes_of_the_value(simulator: Simulator, native: Native) -> None:
    value = [1]
    simulator.set_reply(LG_STATE, value)
    value.append(2)
    assert json.loads(native.json_text(LG_STATE)) == [1]


def test_callable_reply_gets_the_request(
    simulator: Simulator, native: Native, json_object: Any
) -> None:
    request = json_object({"port_name": "port1"})
    simulator.set_reply(LG_STATE, lambda request: {"request": request})
    text = native.json_text(LG_STATE, None, value_of(request))
    assert json.loads(text) == {"request": {"port_name": "port1"}}


def test_every_json_service_has_its_own_reply(simulator: Simulator, native: Native) -> None:
    forms = simulator._library.forms
    names = [name for name, form in forms.items() if form is native_library.ReplyForm.JSON]
    assert len(names) == 17
    for name in names:
        simulator.set_reply(name, {"from": name})
    for name in names:
        pointers = (None,) * (3 if name in CAPTURE_SERVICES else 2)
        assert json.loads(native.json_text(name, *pointers)) == {"from": name}
    assert [call.service for call in simulator.call_log] == names


@pytest.mark.parametrize("value", [{1, 2}, object(), [b"bytes"]], ids=["set", "object", "bytes"])
def test_set_reply_without_json_form_raises(simulator: Simulator, value: object) -> None:
    with pytest.raises(TypeError, match="not JSON serializable"):
        simulator.set_reply(LG_STATE, value)


@pytest.mark.parametrize("reply", ["é\r\n", b"\xff--More--", "", b""])
def test_command_reply_is_text(simulator: Simulator, native: Native, reply: str | bytes) -> None:
    simulator.set_reply("get_cli_cmd_output", reply)
    expected = reply if isinstance(reply, bytes) else reply.encode()
    assert native.take(native.command(b"get system arp")) == expected


def test_command_reply_is_callable_or_null(simulator: Simulator, native: Native) -> None:
    outputs = {b"a": "one", b"b": b"two"}
    simulator.set_reply("get_cli_cmd_output", lambda command: outputs.get(command))
    assert [native.take(native.command(name)) for name in (b"a", b"b")] == [b"one", b"two"]
    assert native.command(b"c") is None


ULONG_MAX = 2 ** (8 * ctypes.sizeof(ctypes.c_ulong)) - 1


@pytest.mark.parametrize("number", [0, 1, 2**32 - 1, pytest.param(ULONG_MAX, id="ULONG_MAX")])
def test_identifier_and_hash_are_unsigned_long(
    simulator: Simulator, native: Native, number: int
) -> None:
    simulator.set_reply(IDENTIFIER, lambda: number)
    simulator.set_reply("__get_aps_hash", number)
    assert native.number(IDENTIFIER) == number
    assert native.number("__get_aps_hash", b"serial") == number


@pytest.mark.parametrize("status", [0, 3, -1, -(2**31), 2**31 - 1])
def test_certificate_status_is_an_int(simulator: Simulator, native: Native, status: int) -> None:
    simulator.set_reply("gui_chk_cert_expiration", lambda path: status)
    assert native.certificate(b"/etc/cert") == status


@pytest.mark.parametrize(
    ("service", "number"),
    [
        (IDENTIFIER, -1),
        ("__get_aps_hash", 2**64),
        ("gui_chk_cert_expiration", 2**31),
        ("gui_chk_cert_expiration", -(2**31) - 1),
    ],
)
def test_number_beyond_its_c_type_raises(simulator: Simulator, service: str, number: int) -> None:
    with pytest.raises(ValueError, match=f"^{number} does not fit the service's C type"):
        simulator.set_reply(service, number)


def test_cookie_replies_get_the_text(simulator: Simulator, native: Native) -> None:
    simulator.set_reply("cookieval_wrap", lambda text: b"<" + text + b">")
    simulator.set_reply("cookieval_unwrap", lambda text: text[1:-1])
    assert native.text("cookieval_wrap", b"value") == b"<value>"
    assert native.unwrap(b"<value>") == (0, b"value")


@pytest.mark.parametrize("reply", [b"", b"abc", b"ab\0longer than the buffer"])
def test_unwrapped_text_that_fits_is_in_the_buffer(
    simulator: Simulator, native: Native, reply: bytes
) -> None:
    simulator.set_reply("cookieval_unwrap", reply)
    assert native.unwrap(b"xyz") == (0, reply.split(b"\0")[0])


def test_unwrapped_text_that_fits_not_leaves_the_buffer(
    simulator: Simulator, native: Native
) -> None:
    simulator.set_reply("cookieval_unwrap", None)
    assert native.unwrap(b"xyz") == (-1, b"xyz")
    simulator.raise_errors()
    simulator.set_reply("cookieval_unwrap", b"abcd")
    assert native.unwrap(b"xyz") == (-1, b"xyz")
    with pytest.raises(ValueError, match=r"^cookieval_unwrap: .* longer than the one in the"):
        simulator.raise_errors()


@pytest.mark.parametrize(
    ("service", "reply", "text"),
    [
        ("cookieval_wrap", None, "the service returns text, not NoneType"),
        ("get_cli_cmd_output", 5, "the service returns text, not int"),
        (IDENTIFIER, "5", "the service returns an int, not str"),
        ("gui_chk_cert_expiration", None, "the service returns an int, not NoneType"),
    ],
)
def test_reply_of_wrong_type_raises(
    simulator: Simulator, service: str, reply: object, text: str
) -> None:
    with pytest.raises(TypeError, match=f"^{text}$"):
        simulator.set_reply(service, reply)


def test_service_without_reply_is_null_0_or_empty(simulator: Simulator, native: Native) -> None:
    assert native.json(LG_STATE, None, None) is None
    assert native.json(CAPTURE_SERVICES[0], None, None, None) is None
    assert native.command(b"get system arp") is None
    assert native.number(IDENTIFIER) == 0
    assert native.number("__get_aps_hash", b"x") == 0
    assert native.text("cookieval_wrap", b"x") == b""
    assert native.unwrap(b"x") == (0, b"")
    assert native.certificate(b"x") == 0
    assert {call.source for call in simulator.call_log} == {"none"}


def test_unknown_service_raises_with_a_hint(simulator: Simulator) -> None:
    with pytest.raises(ValueError, match=r"^unknown native service build_switch_lg_stat: did "):
        simulator.set_reply("build_switch_lg_stat", None)
    with pytest.raises(ValueError, match=r"^unknown native service zzz$"):
        simulator.source("zzz")


def test_failing_reply_is_raised_by_raise_errors(simulator: Simulator, native: Native) -> None:
    for service in (LG_STATE, "get_cli_cmd_output", "cookieval_wrap", "cookieval_unwrap"):
        simulator.set_reply(service, fail)
    assert native.json(LG_STATE, None, None) is None
    with pytest.raises(LookupError, match="no reply"):
        simulator.raise_errors()
    simulator.raise_errors()  # raises each error once
    assert native.command(b"x") is None
    assert native.text("cookieval_wrap", b"x") == b""
    assert native.unwrap(b"x") == (-1, b"x")
    message = r"^3 replies failed: LookupError\('no reply'\); "
    with pytest.raises(RuntimeError, match=message) as several:
        simulator.raise_errors()
    assert isinstance(several.value.__cause__, LookupError)


def test_failing_reply_is_raised_or_context_at_block_end(build: None) -> None:
    def block(own_error: Exception | None) -> None:
        with Simulator(live=False) as simulator:
            simulator.set_reply(LG_STATE, fail)
            Native().json(LG_STATE, None, None)
            if own_error is not None:
                raise own_error

    with pytest.raises(LookupError, match="no reply"):
        block(None)
    with pytest.raises(KeyError) as raised:
        block(KeyError("block"))
    assert isinstance(raised.value.__context__, LookupError)


@pytest.mark.parametrize(
    ("service", "value"),
    [(LG_STATE, {1}), (LG_STATE, "\ud800"), (IDENTIFIER, -1), ("cookieval_wrap", None)],
)
def test_invalid_result_of_a_callable_is_an_error(
    simulator: Simulator, native: Native, service: str, value: object
) -> None:
    simulator.set_reply(service, lambda *given: value)
    if service == LG_STATE:
        assert native.json(LG_STATE, None, None) is None
    else:
        native.number(service) if service.startswith("aps") else native.text(service, b"x")
    with pytest.raises((TypeError, ValueError)):
        simulator.raise_errors()


@pytest.fixture
def deep_recursion() -> Iterator[None]:
    before = sys.getrecursionlimit()
    sys.setrecursionlimit(5000)
    yield
    sys.setrecursionlimit(before)


@pytest.mark.usefixtures("deep_recursion")
def test_json_nests_a_thousand_levels(simulator: Simulator, native: Native) -> None:
    simulator.set_reply(LG_STATE, json.loads("[" * 999 + "]" * 999))
    assert native.json_text(LG_STATE).replace(b" ", b"") == b"[" * 999 + b"]" * 999
    simulator.set_reply(LG_STATE, json.loads("[" * 1001 + "]" * 1001))
    assert native.json(LG_STATE, None, None) is None
    with pytest.raises(ValueError, match=f"^{LG_STATE}: json-c cannot parse the text$"):
        simulator.raise_errors()
    simulator.set_reply(LG_STATE, RawJSON("[" * 5000))  # not parsed
    assert native.json_text(LG_STATE) == b"[" * 5000


def test_callable_may_call_other_services(simulator: Simulator, native: Native) -> None:
    simulator.set_reply(IDENTIFIER, lambda: native.number("__get_aps_hash", b"x") + 1)
    simulator.set_reply("__get_aps_hash", 41)
    assert native.number(IDENTIFIER) == 42
    assert [(call.service, call.source) for call in simulator.call_log] == [
        (IDENTIFIER, "scripted"),
        ("__get_aps_hash", "scripted"),
    ]


def test_threads_get_their_own_replies(simulator: Simulator, native: Native) -> None:
    first_called, second_called, first_done = (threading.Event() for _ in range(3))
    results = {}

    def reply(text: bytes) -> int:
        # Waiting releases the interpreter lock; the first call returns first.
        if text == b"1":
            first_called.set()
            assert second_called.wait(30)
        else:
            second_called.set()
            assert first_done.wait(30)
        return int(text)

    def call_first() -> None:
        results[1] = native.number("__get_aps_hash", b"1")
        first_done.set()

    simulator.set_reply("__get_aps_hash", reply)
    thread = threading.Thread(target=call_first)
    thread.start()
    assert first_called.wait(30)
    results[2] = native.number("__get_aps_hash", b"2")
    thread.join()
    assert results == {1: 1, 2: 2}


@pytest.fixture
def python_calls() -> Iterator[list[str]]:
    """The Python functions called during the test, except the tests' own."""
    entered: list[str] = []

    def profile(frame: Any, event: str, argument: object) -> None:
        if event == "call" and frame.f_globals["__name__"] not in (__name__, Native.__module__):
            entered.append(frame.f_code.co_name)

    sys.setprofile(profile)
    yield entered
    sys.setprofile(None)


# Python functions of ctypes.
CTYPES_FUNCTIONS = {
    *("__getitem__", "__init__", "string_at", "create_string_buffer"),
    *("PYFUNCTYPE", "CFunctionType"),
}


def test_fixed_reply_bypasses_python_and_call_log(
    simulator: Simulator, native: Native, json_object: Any, python_calls: list[str]
) -> None:
    replies = {LG_STATE: [{"a": 1}], "get_cli_cmd_output": "text", IDENTIFIER: 7}
    cookies = {"cookieval_wrap": b"<x>", "cookieval_unwrap": b"y", "gui_chk_cert_expiration": -1}
    for service, reply in {**replies, **cookies}.items():
        simulator.set_fixed_reply(service, reply)
    request = json_object({})
    python_calls.clear()
    assert native.json_text(LG_STATE, None, value_of(request)) == b'[ { "a": 1 } ]'
    assert native.take(native.command(b"x")) == b"text"
    assert native.number(IDENTIFIER) == 7
    assert native.text("cookieval_wrap", b"x") == b"<x>"
    assert native.unwrap(b"<x>") == (0, b"y")
    assert native.certificate(b"x") == -1
    release(request)
    # Hypothesis watches the garbage collector.
    assert set(python_calls) - {"profile", "gc_callback"} <= CTYPES_FUNCTIONS
    assert simulator.call_log == []
    assert simulator.fixed_reply_calls(LG_STATE) == 1


def test_fixed_object_is_shared_and_not_counted(simulator: Simulator, native: Native) -> None:
    simulator.set_fixed_reply(LG_STATE, [1])
    first, second = (native.json(LG_STATE, None, None) for _ in range(2))
    assert first == second
    assert simulator.live_objects.json_objects == 0
    native.put(first)
    assert native.rendered(second) == b"[ 1 ]"
    native.put(second)
    assert native.json_text(LG_STATE) == b"[ 1 ]"


def test_last_of_reply_and_fixed_reply_counts(simulator: Simulator, native: Native) -> None:
    simulator.set_reply(IDENTIFIER, 1)
    simulator.set_fixed_reply(IDENTIFIER, 2)
    assert native.number(IDENTIFIER) == 2
    simulator.set_reply(IDENTIFIER, 3)
    assert native.number(IDENTIFIER) == 3
    assert simulator.fixed_reply_calls(IDENTIFIER) == 0
    assert len(simulator.call_log) == 1


def test_oversized_fixed_reply_raises(simulator: Simulator, native: Native) -> None:
    simulator.set_fixed_reply("cookieval_unwrap", b"abcd")
    assert native.unwrap(b"xyz") == (-1, b"xyz")
    with pytest.raises(ValueError, match="the fixed reply did not fit 1 buffers"):
        simulator.raise_errors()
    simulator.raise_errors()


def test_wrapped_text_without_memory_is_empty(build: None) -> None:
    native = Native()
    testcapi = importlib.import_module("_testcapi")
    wrap = native.function("cookieval_wrap", ctypes.c_void_p, ctypes.c_char_p)
    texts = []
    # The buffer leaks if ctypes cannot create its result: do not count buffers.
    with Simulator(live=False, track_buffers=False) as simulator:
        simulator.set_fixed_reply("cookieval_wrap", b"x" * 600)  # larger than obmalloc's blocks
        for allocation in range(20):
            testcapi.set_nomemory(allocation, allocation + 1)
            try:
                buffer = wrap(b"value")
            except (MemoryError, ctypes.ArgumentError):  # of ctypes, before or after the call
                continue
            finally:
                testcapi.remove_mem_hooks()
            texts.append(native.take(buffer))
    assert set(texts) == {b"", b"x" * 600}
