"""The stand-in appliance itself: what its native services hand out, what it keeps of the calls, and
the C-level interfaces of its sibling modules. The product takes no part here: services are called
as it calls them, from C types with the interpreter lock held."""

from __future__ import annotations

import ctypes
import gc
import importlib
import json
import subprocess
import sys
import threading
import tracemalloc
import weakref
from collections.abc import Iterator
from pathlib import Path
from types import ModuleType
from typing import Any

import pytest

from veldarin_simulator import (
    GILProbes,
    LiveObjects,
    NativeCall,
    RawJSON,
    Reply,
    Simulator,
    Source,
    native_library,
)

POINTER = ctypes.sizeof(ctypes.c_void_p)
STATUS = "build_switch_lg_state"
CAPTURES = [
    f"build_{action}_sniffer_profile_capture" for action in ("start", "stop", "pause", "delete")
]
RELEASE = "JSONObject.release"


class Native:
    """The services and json-c, found in the process as the product finds them."""

    def __init__(self) -> None:
        self.process = ctypes.PyDLL(None)

    def function(self, name: str, result: Any, *arguments: Any) -> Any:
        """A function of the process with its signature."""
        function = self.process[name]  # not by attribute: that would be shared
        function.restype = result
        function.argtypes = arguments
        return function

    def status(self, name: str, *pointers: int | None) -> int | None:
        """A bridge function's reply, a json-c object."""
        signature = [ctypes.c_void_p] * len(pointers)
        reply: int | None = self.function(name, ctypes.c_void_p, *signature)(*pointers)
        return reply

    def text(self, name: str, *arguments: bytes | None) -> bytes | None:
        """A text service's reply; its buffer is freed as the product frees it."""
        signature = [ctypes.c_char_p] * len(arguments)
        buffer = self.function(name, ctypes.c_void_p, *signature)(*arguments)
        if buffer is None:
            return None
        text = ctypes.string_at(buffer)
        self.free(buffer)
        return text

    def command(self, command: bytes, first: int | None = None) -> int | None:
        """The buffer of a command's output, not freed."""
        run = self.function("get_cli_cmd_output", ctypes.c_void_p, ctypes.c_void_p, ctypes.c_char_p)
        buffer: int | None = run(first, command)
        return buffer

    def unwrap(self, text: bytes) -> tuple[int, bytes]:
        """The status of an unwrapping and what it left in the buffer."""
        buffer = ctypes.create_string_buffer(text)
        unwrap = self.function("cookieval_unwrap", ctypes.c_int, ctypes.c_char_p)
        return unwrap(buffer), buffer.value

    def number(self, name: str, *arguments: bytes) -> int:
        """A cookie identifier or a hash."""
        signature = [ctypes.c_char_p] * len(arguments)
        return int(self.function(name, ctypes.c_ulong, *signature)(*arguments))

    def certificate(self, path: bytes) -> int:
        """The status of a certificate check."""
        check = self.function("gui_chk_cert_expiration", ctypes.c_int, ctypes.c_char_p)
        return int(check(path))

    def free(self, buffer: int | None) -> None:
        """PyMem_Free."""
        release = ctypes.pythonapi["PyMem_Free"]
        release.restype, release.argtypes = None, [ctypes.c_void_p]
        release(buffer)

    def rendered(self, reply: int | None) -> bytes:
        """The text of a json-c object."""
        render = self.function("json_object_to_json_string", ctypes.c_char_p, ctypes.c_void_p)
        return bytes(render(reply))

    def put(self, reply: int | None) -> None:
        """Gives a json-c object back."""
        self.function("json_object_put", ctypes.c_int, ctypes.c_void_p)(reply)

    def answered(self, name: str, *pointers: int | None) -> bytes:
        """The text of a bridge function's reply, which is given back."""
        reply = self.status(name, *(pointers or (None, None)))
        text = self.rendered(reply)
        self.put(reply)
        return text


@pytest.fixture
def native(simulator: Simulator) -> Native:
    return Native()


@pytest.fixture
def sibling(simulator: Simulator) -> ModuleType:
    """util.json."""
    return importlib.import_module("util.json")


# -- replies of the bridge functions ---------------------------------------------------------------


@pytest.mark.parametrize(
    "value",
    [
        [{"a": 1, "b": [True, None, 'é/"\\\u2028']}],
        {},
        [],
        0,
        -(2**63),
        2**64 - 1,
        "text",
        True,
        1.5,
    ],
    ids=repr,
)
def test_a_json_value_is_answered_as_json_c_renders_it(
    simulator: Simulator, native: Native, value: object
) -> None:
    simulator.set_reply(STATUS, value)
    assert json.loads(native.answered(STATUS)) == value


@pytest.mark.parametrize("number", [0.1, 1e300, -2.5e-7, 1.10])
def test_a_number_at_the_root_keeps_its_spelling(
    simulator: Simulator, native: Native, number: float
) -> None:
    simulator.set_reply(STATUS, number)
    assert native.answered(STATUS) == repr(number).encode()


def test_none_is_a_null_pointer(simulator: Simulator, native: Native) -> None:
    simulator.set_reply(STATUS, None)
    assert native.status(STATUS, None, None) is None


@pytest.mark.parametrize("text", ["{oops", "", "null", " [1] ", b"\xff{"])
def test_raw_json_is_rendered_exactly(
    simulator: Simulator, native: Native, text: str | bytes
) -> None:
    simulator.set_reply(STATUS, RawJSON(text))
    assert native.answered(STATUS) == (text if isinstance(text, bytes) else text.encode())


def test_raw_json_may_hold_a_nul_where_its_reader_stops(
    simulator: Simulator, native: Native
) -> None:
    simulator.set_reply(STATUS, RawJSON("[1]\0junk"))
    assert native.answered(STATUS) == b"[1]"


def test_each_call_hands_out_an_object_of_its_own(simulator: Simulator, native: Native) -> None:
    simulator.set_reply(STATUS, [1])
    first, second = (native.status(STATUS, None, None) for _ in range(2))
    assert first != second
    native.put(first)
    assert native.rendered(second) == b"[ 1 ]"
    native.put(second)


def test_an_answer_is_what_it_was_when_scripted(simulator: Simulator, native: Native) -> None:
    value = [1]
    simulator.set_reply(STATUS, value)
    value.append(2)
    assert json.loads(native.answered(STATUS)) == [1]


def test_a_callable_gets_the_request_and_answers_per_call(
    simulator: Simulator, native: Native, sibling: ModuleType
) -> None:
    request = sibling.JSONObject({"port_name": "port1"})
    simulator.set_reply(STATUS, lambda request: {"asked": request})
    assert json.loads(native.answered(STATUS, None, held(request))) == {
        "asked": {"port_name": "port1"}
    }


def test_every_bridge_function_is_a_service_of_its_own(
    simulator: Simulator, native: Native
) -> None:
    names = [
        name
        for name, form in simulator._host.forms.items()
        if form is native_library.ReplyForm.JSON
    ]
    assert len(names) == 17
    for name in names:
        simulator.set_reply(name, {"from": name})
    for name in names:
        pointers = (None,) * (3 if name in CAPTURES else 2)
        assert json.loads(native.answered(name, *pointers)) == {"from": name}
    assert [call.service for call in simulator.call_log] == names


@pytest.mark.parametrize("value", [{1, 2}, object(), [b"bytes"]], ids=["set", "object", "bytes"])
def test_what_has_no_json_form_is_refused_when_scripted(
    simulator: Simulator, value: object
) -> None:
    with pytest.raises(TypeError, match="not JSON serializable"):
        simulator.set_reply(STATUS, value)


# -- the other services ----------------------------------------------------------------------------


@pytest.mark.parametrize("reply", ["é\r\n", b"\xff--More--", "", b""])
def test_a_command_is_answered_with_text(
    simulator: Simulator, native: Native, reply: str | bytes
) -> None:
    simulator.set_reply("get_cli_cmd_output", reply)
    expected = reply if isinstance(reply, bytes) else reply.encode()
    buffer = native.command(b"get system arp")
    assert buffer is not None
    assert ctypes.string_at(buffer) == expected
    native.free(buffer)


def test_a_command_is_answered_by_a_callable_or_null(simulator: Simulator, native: Native) -> None:
    outputs = {b"a": "one", b"b": b"two"}
    simulator.set_reply("get_cli_cmd_output", lambda command: outputs.get(command))
    for command in (b"a", b"b"):
        buffer = native.command(command)
        assert buffer is not None
        native.free(buffer)
    assert native.command(b"c") is None


ULONG_MAX = 2 ** (8 * ctypes.sizeof(ctypes.c_ulong)) - 1


@pytest.mark.parametrize("number", [0, 1, 2**32 - 1, pytest.param(ULONG_MAX, id="ULONG_MAX")])
def test_identifiers_and_hashes_are_unsigned_long(
    simulator: Simulator, native: Native, number: int
) -> None:
    simulator.set_reply("aps_get_new_cookie_id", lambda: number)
    simulator.set_reply("__get_aps_hash", number)
    assert native.number("aps_get_new_cookie_id") == number
    assert native.number("__get_aps_hash", b"serial") == number


@pytest.mark.parametrize("status", [0, 3, -1, -(2**31), 2**31 - 1])
def test_a_certificate_status_is_an_int(simulator: Simulator, native: Native, status: int) -> None:
    simulator.set_reply("gui_chk_cert_expiration", lambda path: status)
    assert native.certificate(b"/etc/cert") == status


@pytest.mark.parametrize(
    ("service", "number"),
    [
        ("aps_get_new_cookie_id", -1),
        ("__get_aps_hash", 2**64),
        ("gui_chk_cert_expiration", 2**31),
        ("gui_chk_cert_expiration", -(2**31) - 1),
    ],
)
def test_a_number_that_its_c_type_does_not_hold_is_refused(
    simulator: Simulator, service: str, number: int
) -> None:
    with pytest.raises(ValueError, match=f"^{number} does not fit the service's C type"):
        simulator.set_reply(service, number)


def test_cookie_values_are_wrapped_and_unwrapped(simulator: Simulator, native: Native) -> None:
    simulator.set_reply("cookieval_wrap", lambda text: b"<" + text + b">")
    simulator.set_reply("cookieval_unwrap", lambda text: text[1:-1])
    assert native.text("cookieval_wrap", b"value") == b"<value>"
    assert native.unwrap(b"<value>") == (0, b"value")


@pytest.mark.parametrize("reply", [b"", b"abc", b"ab\0longer than the buffer"])
def test_an_unwrapped_text_that_fits_is_left_in_the_buffer(
    simulator: Simulator, native: Native, reply: bytes
) -> None:
    simulator.set_reply("cookieval_unwrap", reply)
    assert native.unwrap(b"xyz") == (0, reply.split(b"\0")[0])


def test_unwrapping_never_grows_the_text(simulator: Simulator, native: Native) -> None:
    simulator.set_reply("cookieval_unwrap", b"abcd")
    assert native.unwrap(b"xyz") == (-1, b"xyz")
    with pytest.raises(ValueError, match=r"^cookieval_unwrap: .* longer than the one in the"):
        simulator.raise_errors()


def test_unwrapping_nothing_leaves_the_buffer(simulator: Simulator, native: Native) -> None:
    simulator.set_reply("cookieval_unwrap", None)
    assert native.unwrap(b"xyz") == (-1, b"xyz")


def test_a_wrapped_text_is_never_null(simulator: Simulator) -> None:
    with pytest.raises(TypeError, match="the service answers text, not NoneType"):
        simulator.set_reply("cookieval_wrap", None)


@pytest.mark.parametrize(
    ("service", "reply", "text"),
    [
        ("get_cli_cmd_output", 5, "the service answers text, not int"),
        ("aps_get_new_cookie_id", "5", "the service answers an int, not str"),
        ("gui_chk_cert_expiration", None, "the service answers an int, not NoneType"),
    ],
)
def test_a_reply_of_the_wrong_kind_is_refused(
    simulator: Simulator, service: str, reply: object, text: str
) -> None:
    with pytest.raises(TypeError, match=f"^{text}$"):
        simulator.set_reply(service, reply)


def test_without_an_answer_services_are_null_nought_or_empty(
    simulator: Simulator, native: Native
) -> None:
    assert native.status(STATUS, None, None) is None
    assert native.status(CAPTURES[0], None, None, None) is None
    assert native.command(b"get system arp") is None
    assert native.number("aps_get_new_cookie_id") == 0
    assert native.number("__get_aps_hash", b"x") == 0
    assert native.text("cookieval_wrap", b"x") == b""
    assert native.unwrap(b"x") == (0, b"")
    assert native.certificate(b"x") == 0
    assert {call.source for call in simulator.call_log} == {"none"}


def test_an_unknown_service_is_named_with_its_likeness(simulator: Simulator) -> None:
    with pytest.raises(ValueError, match=r"^there is no native service build_switch_lg_stat: did "):
        simulator.set_reply("build_switch_lg_stat", None)
    with pytest.raises(ValueError, match=r"^there is no native service zzz$"):
        simulator.source("zzz")


# -- the journal -----------------------------------------------------------------------------------


def test_the_journal_holds_what_crossed_in_order(
    simulator: Simulator, native: Native, sibling: ModuleType
) -> None:
    request = sibling.JSONObject({"mkey": "é/"})
    native.status(STATUS, 0x10, held(request))
    native.status(CAPTURES[1], None, held(request), 0x20)
    native.command(b"get system arp", 0x30)
    native.number("aps_get_new_cookie_id")
    native.unwrap(b"wrapped")
    release(request)
    assert simulator.call_log == [
        NativeCall(STATUS, 0x10, '{"mkey":"é/"}', None, None),
        NativeCall(CAPTURES[1], None, '{"mkey":"é/"}', 0x20, None),
        NativeCall("get_cli_cmd_output", 0x30, None, None, b"get system arp"),
        NativeCall("aps_get_new_cookie_id"),
        NativeCall("cookieval_unwrap", None, None, None, b"wrapped"),
        NativeCall(RELEASE, None, '{"mkey":"é/"}', None, None),
    ]


def test_serializer_is_journaled_only_when_recorded(simulator: Simulator, native: Native) -> None:
    serializer = "json_object_to_json_string"
    simulator.set_reply(STATUS, {"a": [1, "/"]})
    reply = native.status(STATUS, None, None)
    before = native.rendered(reply)
    assert [call.service for call in simulator.call_log] == [STATUS]
    simulator.record_serializer()
    assert native.rendered(reply) == before
    assert native.rendered(None) == b"null"
    simulator.record_serializer(False)
    assert native.rendered(reply) == before
    assert simulator.call_log[1:] == [
        NativeCall(serializer, request='{"a":[1,"/"]}'),
        NativeCall(serializer, request="null"),
    ]
    native.put(reply)


def test_serializer_is_not_recorded_by_the_next_appliance(built: None) -> None:
    native = Native()
    with Simulator(live=False) as simulator:
        simulator.record_serializer()
        native.rendered(None)
        assert len(simulator.call_log) == 1
    with Simulator(live=False) as simulator:
        native.rendered(None)
        assert simulator.call_log == []


def test_gil_probe_ends_with_the_appliance(built: None) -> None:
    native = Native()
    counter = ctypes.c_ulong()
    with Simulator(live=False) as simulator:
        simulator.probe_gil(counter, 1)
        native.number("aps_get_new_cookie_id")
        assert simulator.gil_probes == GILProbes(calls=1, released=0)
        simulator.probe_gil(None)
        native.number("aps_get_new_cookie_id")
        assert simulator.gil_probes == GILProbes(calls=0, released=0)
        simulator.probe_gil(counter, 1)
    with Simulator(live=False) as simulator:
        native.number("aps_get_new_cookie_id")
        assert simulator.gil_probes == GILProbes(calls=0, released=0)


def test_forgetting_empties_the_journal_even_during_a_call(
    simulator: Simulator, native: Native
) -> None:
    def answer() -> int:
        simulator.clear_calls()
        native.certificate(b"x")
        return 7

    simulator.set_reply("aps_get_new_cookie_id", answer)
    assert native.number("aps_get_new_cookie_id") == 7
    assert [(call.service, call.source) for call in simulator.call_log] == [
        ("gui_chk_cert_expiration", "none")
    ]
    simulator.clear_calls()
    assert simulator.call_log == []


def test_the_journal_keeps_the_latest_calls(simulator: Simulator, sibling: ModuleType) -> None:
    blank = sibling.JSONObject()
    number = 100_000
    for _ in range(number):
        release(blank)
    assert len(simulator.call_log) == number
    last = sibling.JSONObject({"last": True})
    release(last)
    kept = simulator.call_log
    assert len(kept) == number // 2 + 1
    assert kept[-1].request == '{"last":true}'


def test_the_source_of_an_answer_is_told(simulator: Simulator, native: Native) -> None:
    sources: Iterator[Source] = iter(["live", "recorded"])
    simulator.set_reply(STATUS, lambda request: Reply(None, next(sources)))
    simulator.set_reply("__get_aps_hash", Reply(5, "recorded"))
    assert simulator.source("get_cli_cmd_output") == "none"
    assert simulator.source(STATUS) == "scripted"
    assert simulator.source("__get_aps_hash") == "recorded"
    native.status(STATUS, None, None)
    assert simulator.source(STATUS) == "live"
    native.status(STATUS, None, None)
    assert simulator.source(STATUS) == "recorded"
    simulator.set_reply(STATUS, None)
    assert simulator.source(STATUS) == "scripted"
    native.number("__get_aps_hash", b"x")
    native.command(b"x")
    assert [call.source for call in simulator.call_log] == ["live", "recorded", "recorded", "none"]


# -- live counts -----------------------------------------------------------------------------------


def test_replies_count_until_json_c_frees_them(simulator: Simulator, native: Native) -> None:
    replies = []
    values: list[object] = [[1], {"a": {}}, 1.5, "x", RawJSON("{oops")]
    for value in values:
        simulator.set_reply(STATUS, value)
        replies.append(native.status(STATUS, None, None))
    assert simulator.live_objects == LiveObjects(5, 0)
    for left, reply in zip((4, 3, 2, 1, 0), replies):
        native.put(reply)
        assert simulator.live_objects == LiveObjects(left, 0)


def test_requests_count_until_json_c_frees_them(simulator: Simulator, sibling: ModuleType) -> None:
    released, dropped = sibling.JSONObject({"a": [1.5]}), sibling.JSONObject({})
    assert simulator.live_objects.json_objects == 2
    release(released)
    assert simulator.live_objects.json_objects == 1
    release(released)  # it holds nothing by now
    del dropped
    assert simulator.live_objects.json_objects == 0


def test_text_buffers_count_until_they_are_freed(simulator: Simulator, native: Native) -> None:
    simulator.set_reply("get_cli_cmd_output", "x")
    buffers = [native.command(b"x") for _ in range(3)]
    assert simulator.live_objects == LiveObjects(0, 3)
    resize = ctypes.pythonapi["PyMem_Realloc"]
    resize.restype, resize.argtypes = ctypes.c_void_p, [ctypes.c_void_p, ctypes.c_size_t]
    buffers[0] = resize(buffers[0], 100_000)
    assert simulator.live_objects.text_buffers == 3
    for left, buffer in zip((2, 1, 0), buffers):
        native.free(buffer)
        assert simulator.live_objects.text_buffers == left


def test_what_an_earlier_appliance_made_counts_no_more(built: None) -> None:
    native = Native()
    with Simulator(live=False) as simulator:
        simulator.set_reply(STATUS, [1])
        simulator.set_reply("get_cli_cmd_output", "x")
        reply, buffer = native.status(STATUS, None, None), native.command(b"x")
        assert simulator.live_objects == LiveObjects(1, 1)
    with Simulator(live=False) as simulator:
        assert simulator.live_objects == LiveObjects(0, 0)
        native.put(reply)
        assert buffer is not None
        native.free(buffer)
        assert simulator.live_objects == LiveObjects(0, 0)


class Allocator(ctypes.Structure):
    """PyMemAllocatorEx."""

    NAMES = ("ctx", "malloc", "calloc", "realloc", "free")
    _fields_ = tuple((name, ctypes.c_void_p) for name in NAMES)


def allocator() -> tuple[int | None, ...]:
    """The allocator of the interpreter's PyMem functions."""
    current = Allocator()
    get = ctypes.pythonapi["PyMem_GetAllocator"]
    get.restype, get.argtypes = None, [ctypes.c_int, ctypes.c_void_p]
    get(1, ctypes.byref(current))
    return tuple(getattr(current, name) for name in Allocator.NAMES)


def test_the_allocator_is_wrapped_only_while_buffers_are_counted(built: None) -> None:
    before = allocator()
    with Simulator(live=False):
        assert allocator() != before
    assert allocator() == before
    with Simulator(live=False, track_buffers=False) as simulator:
        assert allocator() == before
        with pytest.raises(RuntimeError, match="opened with counting=False"):
            simulator.live_objects  # noqa: B018


def test_counting_gets_on_with_others_that_wrap_the_allocator(built: None) -> None:
    native = Native()
    before = allocator()
    with Simulator(live=False):
        tracemalloc.start()
        others = allocator()
    assert allocator() == others
    with Simulator(live=False) as simulator:  # wrapped by tracemalloc, not wrapped twice
        simulator.set_reply("get_cli_cmd_output", "x")
        buffer = native.command(b"x")
        assert simulator.live_objects.text_buffers == 1
        assert buffer is not None
        native.free(buffer)
        assert simulator.live_objects.text_buffers == 0
        tracemalloc.stop()
    assert allocator() == before


# -- errors in answers -----------------------------------------------------------------------------


def fail(*given: object) -> object:
    raise LookupError("no answer")


def test_a_failing_answer_is_null_and_raised_by_check(simulator: Simulator, native: Native) -> None:
    for service in (STATUS, "get_cli_cmd_output", "cookieval_wrap", "cookieval_unwrap"):
        simulator.set_reply(service, fail)
    assert native.status(STATUS, None, None) is None
    with pytest.raises(LookupError, match="no answer"):
        simulator.raise_errors()
    simulator.raise_errors()  # told once
    assert native.command(b"x") is None
    assert native.text("cookieval_wrap", b"x") == b""
    assert native.unwrap(b"x") == (-1, b"x")
    with pytest.raises(
        RuntimeError, match=r"^3 answers failed: LookupError\('no answer'\); "
    ) as several:
        simulator.raise_errors()
    assert isinstance(several.value.__cause__, LookupError)


def test_a_failing_answer_is_raised_when_the_block_ends(built: None) -> None:
    def block() -> None:
        with Simulator(live=False) as simulator:
            simulator.set_reply(STATUS, fail)
            Native().status(STATUS, None, None)

    with pytest.raises(LookupError, match="no answer"):
        block()


def test_an_exception_of_the_block_comes_with_the_failed_answer(built: None) -> None:
    def block() -> None:
        with Simulator(live=False) as simulator:
            simulator.set_reply(STATUS, fail)
            Native().status(STATUS, None, None)
            raise KeyError("block")

    with pytest.raises(KeyError) as raised:
        block()
    assert isinstance(raised.value.__context__, LookupError)


@pytest.mark.parametrize(
    ("service", "value"),
    [(STATUS, {1}), (STATUS, "\ud800"), ("aps_get_new_cookie_id", -1), ("cookieval_wrap", None)],
)
def test_what_a_callable_may_not_answer_is_an_error(
    simulator: Simulator, native: Native, service: str, value: object
) -> None:
    simulator.set_reply(service, lambda *given: value)
    if service == STATUS:
        assert native.status(STATUS, None, None) is None
    else:
        native.number(service) if service.startswith("aps") else native.text(service, b"x")
    with pytest.raises((TypeError, ValueError)):
        simulator.raise_errors()


def nested(depth: int) -> list[Any]:
    made: list[Any] = []
    for _ in range(depth - 1):
        made = [made]
    return made


@pytest.fixture
def deep_recursion() -> Iterator[None]:
    before = sys.getrecursionlimit()
    sys.setrecursionlimit(5000)
    yield
    sys.setrecursionlimit(before)


@pytest.mark.usefixtures("deep_recursion")
def test_json_may_be_nested_a_thousand_deep(simulator: Simulator, native: Native) -> None:
    simulator.set_reply(STATUS, nested(999))
    assert native.answered(STATUS).replace(b" ", b"") == b"[" * 999 + b"]" * 999
    simulator.set_reply(STATUS, nested(1001))
    assert native.status(STATUS, None, None) is None
    with pytest.raises(ValueError, match=f"^{STATUS}: json-c cannot parse the text$"):
        simulator.raise_errors()
    simulator.set_reply(STATUS, RawJSON("[" * 5000))  # not parsed
    assert native.answered(STATUS) == b"[" * 5000


def test_an_answer_may_call_other_services(simulator: Simulator, native: Native) -> None:
    simulator.set_reply(
        "aps_get_new_cookie_id", lambda: native.number("__get_aps_hash", b"inner") + 1
    )
    simulator.set_reply("__get_aps_hash", 41)
    assert native.number("aps_get_new_cookie_id") == 42
    assert [call.service for call in simulator.call_log] == [
        "aps_get_new_cookie_id",
        "__get_aps_hash",
    ]
    assert [call.source for call in simulator.call_log] == ["scripted", "scripted"]


def test_threads_get_their_own_answers_when_the_lock_changes_hands(
    simulator: Simulator, native: Native
) -> None:
    first_asked, second_asked, first_done = (threading.Event() for _ in range(3))
    results = {}

    def answer(text: bytes) -> int:
        # Waiting gives up the interpreter lock. The one asked first answers first.
        if text == b"1":
            first_asked.set()
            assert second_asked.wait(30)
        else:
            second_asked.set()
            assert first_done.wait(30)
        return int(text)

    def call_first() -> None:
        results[1] = native.number("__get_aps_hash", b"1")
        first_done.set()

    simulator.set_reply("__get_aps_hash", answer)
    thread = threading.Thread(target=call_first)
    thread.start()
    assert first_asked.wait(30)
    results[2] = native.number("__get_aps_hash", b"2")
    thread.join()
    assert results == {1: 1, 2: 2}


# -- canned replies --------------------------------------------------------------------------------


@pytest.fixture
def python_calls() -> Iterator[list[str]]:
    """The Python functions entered during the test, except the test's own helpers."""
    entered: list[str] = []

    def profile(frame: Any, event: str, argument: object) -> None:
        if event == "call" and frame.f_globals.get("__name__") != __name__:
            entered.append(frame.f_code.co_name)

    sys.setprofile(profile)
    yield entered
    sys.setprofile(None)


# What ctypes itself runs in Python when this file calls through it.
CTYPES_OWN = {
    *("__getitem__", "__init__", "string_at", "create_string_buffer"),
    *("PYFUNCTYPE", "CFunctionType"),
}


def test_a_canned_call_enters_no_python_and_no_journal(
    simulator: Simulator, native: Native, sibling: ModuleType, python_calls: list[str]
) -> None:
    simulator.set_fixed_reply(STATUS, [{"a": 1}])
    simulator.set_fixed_reply("get_cli_cmd_output", "text")
    simulator.set_fixed_reply("aps_get_new_cookie_id", 7)
    simulator.set_fixed_reply("cookieval_wrap", b"<x>")
    simulator.set_fixed_reply("cookieval_unwrap", b"y")
    simulator.set_fixed_reply("gui_chk_cert_expiration", -1)
    request = sibling.JSONObject({})
    python_calls.clear()
    assert native.answered(STATUS, None, held(request)) == b'[ { "a": 1 } ]'
    buffer = native.command(b"x")
    assert buffer is not None
    assert ctypes.string_at(buffer) == b"text"
    native.free(buffer)
    assert native.number("aps_get_new_cookie_id") == 7
    assert native.text("cookieval_wrap", b"x") == b"<x>"
    assert native.unwrap(b"<x>") == (0, b"y")
    assert native.certificate(b"x") == -1
    release(request)
    entered = {function for function in python_calls if function != "profile"}
    assert entered <= CTYPES_OWN
    assert simulator.call_log == []
    assert simulator.fixed_reply_calls(STATUS) == 1


def test_a_canned_object_is_shared_and_not_counted(simulator: Simulator, native: Native) -> None:
    simulator.set_fixed_reply(STATUS, [1])
    first, second = (native.status(STATUS, None, None) for _ in range(2))
    assert first == second
    assert simulator.live_objects.json_objects == 0
    native.put(first)
    assert native.rendered(second) == b"[ 1 ]"
    native.put(second)
    assert native.answered(STATUS) == b"[ 1 ]"


def test_a_canned_null_is_null(simulator: Simulator, native: Native) -> None:
    simulator.set_fixed_reply(STATUS, None)
    simulator.set_fixed_reply("get_cli_cmd_output", None)
    assert native.status(STATUS, None, None) is None
    assert native.command(b"x") is None


def test_an_answer_takes_the_place_of_a_canned_reply_and_the_other_way_round(
    simulator: Simulator, native: Native
) -> None:
    simulator.set_reply("aps_get_new_cookie_id", 1)
    simulator.set_fixed_reply("aps_get_new_cookie_id", 2)
    assert native.number("aps_get_new_cookie_id") == 2
    simulator.set_reply("aps_get_new_cookie_id", 3)
    assert native.number("aps_get_new_cookie_id") == 3
    assert simulator.fixed_reply_calls("aps_get_new_cookie_id") == 0
    assert len(simulator.call_log) == 1


def test_a_canned_text_that_does_not_fit_is_told_by_check(
    simulator: Simulator, native: Native
) -> None:
    simulator.set_fixed_reply("cookieval_unwrap", b"abcd")
    assert native.unwrap(b"xyz") == (-1, b"xyz")
    with pytest.raises(ValueError, match="the canned text did not fit 1 buffers"):
        simulator.raise_errors()
    simulator.raise_errors()


def test_a_wrapped_text_is_empty_rather_than_null_when_memory_fails(built: None) -> None:
    native = Native()
    testcapi = importlib.import_module("_testcapi")
    wrap = native.function("cookieval_wrap", ctypes.c_void_p, ctypes.c_char_p)
    texts = []
    # Where ctypes cannot make its result the buffer is lost: not counted.
    with Simulator(live=False, track_buffers=False) as simulator:
        simulator.set_fixed_reply(
            "cookieval_wrap", b"x" * 600
        )  # beyond the interpreter's small blocks
        for allocation in range(20):
            testcapi.set_nomemory(allocation, allocation + 1)
            try:
                buffer = wrap(b"value")
            except (MemoryError, ctypes.ArgumentError):  # of ctypes, before or after the call
                continue
            finally:
                testcapi.remove_mem_hooks()
            assert buffer is not None
            texts.append(ctypes.string_at(buffer))
            native.free(buffer)
    assert set(texts) == {b"", b"x" * 600}


# -- sibling modules -------------------------------------------------------------------------------


def capsule(item: object, name: bytes | None) -> int:
    """The pointer in a capsule of that name."""
    pointer = ctypes.pythonapi["PyCapsule_GetPointer"]
    pointer.restype, pointer.argtypes = ctypes.c_void_p, [ctypes.py_object, ctypes.c_char_p]
    return int(pointer(item, name))


def held(instance: Any) -> int | None:
    """The json-c object that a JSONObject holds, read where the product reads it."""
    pointer: int | None = field(instance).value
    return pointer


def field(instance: Any) -> Any:
    """The pointer to the json-c object in a JSONObject: behind head and method table."""
    return ctypes.c_void_p.from_address(id(instance) + object.__basicsize__ + POINTER)


def release(instance: Any) -> Any:
    """The first operation of the instance's own method table."""
    table = ctypes.c_void_p.from_address(id(instance) + object.__basicsize__).value
    assert table is not None
    operation = ctypes.c_void_p.from_address(table).value
    assert operation is not None
    return ctypes.PYFUNCTYPE(ctypes.py_object, ctypes.py_object)(operation)(instance)


@pytest.mark.parametrize(
    ("module", "name", "signature"),
    [
        ("util.string", "strtcpy", b"int (char *, int, char const *)"),
        ("veldarin.modules.modules", "get_preference_cookie_secret_path", b"char *(void)"),
        ("migbase.migbase", "WARM_START_PATH", b"char *"),
    ],
)
def test_c_level_names_are_capsules_named_by_their_signature(
    simulator: Simulator, module: str, name: str, signature: bytes
) -> None:
    exported = importlib.import_module(module).__pyx_capi__
    assert capsule(exported[name], signature)


def test_the_warm_start_path_is_a_variable(simulator: Simulator) -> None:
    exported = importlib.import_module("migbase.migbase").__pyx_capi__
    address = capsule(exported["WARM_START_PATH"], b"char *")
    assert ctypes.c_char_p.from_address(address).value == b"/var/run/warm_start"


def test_json_object_is_head_method_table_and_one_pointer(sibling: ModuleType) -> None:
    assert sibling.JSONObject.__basicsize__ == object.__basicsize__ + 2 * POINTER
    table = capsule(sibling.JSONObject.__dict__["__pyx_vtable__"], None)
    instance = sibling.JSONObject({})
    assert ctypes.c_void_p.from_address(id(instance) + object.__basicsize__).value == table


def strtcpy(size: int, source: bytes) -> tuple[int, bytes]:
    """The number of bytes that util.string copies, and the 8 bytes of the destination."""
    exported = importlib.import_module("util.string").__pyx_capi__
    copy = ctypes.PYFUNCTYPE(ctypes.c_int, ctypes.c_char_p, ctypes.c_int, ctypes.c_char_p)(
        capsule(exported["strtcpy"], b"int (char *, int, char const *)")
    )
    destination = ctypes.create_string_buffer(b"........", 8)
    return copy(destination, size, source), destination.raw


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
def test_strtcpy_copies_within_bounds_and_closes_the_text(
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
def test_a_request_is_the_dicts_json(sibling: ModuleType, request_data: dict[str, Any]) -> None:
    text = str(sibling.JSONObject(request_data))
    assert json.loads(text) == json.loads(json.dumps(request_data))


def test_a_float_is_written_as_python_writes_it(sibling: ModuleType) -> None:
    assert str(sibling.JSONObject({"a": 0.1})) == '{ "a": 0.1 }'


class Text(str):
    """A str, but not exactly one."""


def test_subclasses_of_the_json_types_are_taken(sibling: ModuleType) -> None:
    class Mapping(dict):
        pass

    assert str(sibling.JSONObject(Mapping({Text("k"): Text("v")}))) == '{ "k": "v" }'


def recursive() -> dict[str, Any]:
    made: dict[str, Any] = {}
    made["self"] = [made]
    return made


@pytest.mark.parametrize(
    ("arguments", "error", "text"),
    [
        (([],), TypeError, "JSONObject() argument must be dict, not list"),
        (({}, {}), TypeError, "JSONObject() takes at most 1 argument (2 given)"),
        (({"a": [1, {"b": {1}}]},), TypeError, "set has no JSON form"),
        (({"a": 1, 2: 3},), TypeError, "JSON keys must be str, not int"),
        (({"a": {}, "b": 2**64},), OverflowError, None),
        (({"a": "x", "b": "\ud800"},), UnicodeEncodeError, None),
        ((recursive(),), RecursionError, None),
    ],
    ids=["list", "two", "set", "key", "big", "surrogate", "recursive"],
)
def test_a_request_without_json_form_is_refused_and_leaves_nothing(
    simulator: Simulator,
    sibling: ModuleType,
    arguments: tuple[Any, ...],
    error: type[Exception],
    text: str | None,
) -> None:
    with pytest.raises(error) as raised:
        sibling.JSONObject(*arguments)
    assert text is None or str(raised.value) == text
    assert simulator.live_objects.json_objects == 0


def test_a_blank_object_renders_as_null(simulator: Simulator, sibling: ModuleType) -> None:
    blank = sibling.JSONObject()
    assert held(blank) is None
    assert str(blank) == "null"
    assert release(blank) is None
    assert simulator.call_log == [NativeCall(RELEASE, request="null")]


def test_a_blank_can_be_scripted_and_is_borrowed(simulator: Simulator, sibling: ModuleType) -> None:
    simulator.default_response = RawJSON('{"x": 1}')
    first, second = sibling.JSONObject(), sibling.JSONObject()
    assert str(first) == '{"x": 1}'
    release(first)
    assert str(first) == "null"
    assert str(second) == '{"x": 1}'  # still alive
    simulator.default_response = None
    assert str(second) == '{"x": 1}'
    release(second)
    del first, second
    assert str(sibling.JSONObject()) == "null"
    assert simulator.live_objects.json_objects == 0


@pytest.mark.parametrize("blank", [None, RawJSON('{"x": 1}')])
@pytest.mark.parametrize("released", [True, False])
def test_a_reply_put_in_place_of_a_blank_is_owned(
    simulator: Simulator, native: Native, sibling: ModuleType, blank: RawJSON | None, released: bool
) -> None:
    simulator.default_response = blank
    simulator.set_reply(STATUS, [1])
    response = sibling.JSONObject()
    field(response).value = native.status(STATUS, None, None)
    assert simulator.live_objects.json_objects == 1
    if released:
        release(response)
        assert simulator.live_objects.json_objects == 0
        assert simulator.call_log[-1] == NativeCall(RELEASE, request="[1]")
    del response
    assert simulator.live_objects.json_objects == 0


def test_on_create_sees_the_arguments_first_and_may_raise(
    simulator: Simulator, sibling: ModuleType
) -> None:
    seen: list[tuple[Any, ...]] = []
    simulator.on_create = seen.append
    sibling.JSONObject({"a": 1})
    sibling.JSONObject()
    assert seen == [({"a": 1},), ()]
    simulator.on_create = fail
    with pytest.raises(LookupError, match="no answer"):
        sibling.JSONObject({"a": 1})
    assert simulator.live_objects.json_objects == 0
    simulator.on_create = None
    sibling.JSONObject({})


def test_on_release_sees_the_text_and_may_raise(simulator: Simulator, sibling: ModuleType) -> None:
    seen: list[str] = []
    instance = sibling.JSONObject({"a": 1})
    simulator.on_release = fail
    with pytest.raises(LookupError, match="no answer"):
        release(instance)
    assert str(instance) == '{ "a": 1 }'  # still held
    simulator.on_release = seen.append
    release(instance)
    assert seen == ['{ "a": 1 }']
    assert [call.service for call in simulator.call_log] == [RELEASE, RELEASE]


# -- opening and closing ---------------------------------------------------------------------------


def secret_path() -> bytes:
    """The path that the product gets."""
    exported = importlib.import_module("veldarin.modules.modules").__pyx_capi__
    address = capsule(exported["get_preference_cookie_secret_path"], b"char *(void)")
    return bytes(ctypes.PYFUNCTYPE(ctypes.c_char_p)(address)())


def serial_number() -> object:
    return importlib.import_module("migbase.cmdbapi.cmdbapi_util").serial_number_ascii()


def test_the_secret_path_is_in_a_folder_of_its_own_or_where_it_is_set(
    simulator: Simulator, tmp_path: Path
) -> None:
    own = simulator.secret_path
    assert secret_path() == str(own).encode()
    assert own.parent.is_dir()
    simulator.secret_path = tmp_path / "secret"
    assert secret_path() == str(tmp_path / "secret").encode()
    simulator.close()
    assert not own.parent.exists()


def test_the_serial_number_is_scripted(simulator: Simulator) -> None:
    assert serial_number() == simulator.serial_number == b"STANDIN000000001"
    simulator.serial_number = b"SN1"
    assert serial_number() == simulator.serial_number == b"SN1"


def test_an_appliance_starts_clean(built: None, tmp_path: Path) -> None:
    native = Native()
    sibling = importlib.import_module("util.json")
    with Simulator(live=False) as simulator:
        simulator.set_reply("aps_get_new_cookie_id", 5)
        simulator.set_fixed_reply("__get_aps_hash", 6)
        simulator.serial_number = b"SN1"
        simulator.secret_path = tmp_path
        simulator.default_response = RawJSON("1")
        simulator.on_create = fail
        simulator.on_release = fail
        native.certificate(b"x")
    with Simulator(live=False) as simulator:
        assert simulator.call_log == []
        assert native.number("aps_get_new_cookie_id") == 0
        assert native.number("__get_aps_hash", b"x") == 0
        assert serial_number() == b"STANDIN000000001"
        assert simulator.secret_path != tmp_path
        blank = sibling.JSONObject()
        assert (simulator.default_response, simulator.on_create, simulator.on_release) == (
            None,
            None,
            None,
        )
        assert str(blank) == "null"
        release(blank)


def test_a_closed_appliance_answers_nothing(built: None) -> None:
    native = Native()
    with Simulator(live=False) as simulator:
        simulator.set_reply("aps_get_new_cookie_id", 5)
        simulator.set_fixed_reply("__get_aps_hash", 6)
        simulator.on_create = fail
    simulator.close()  # once more does no harm
    importlib.import_module("util.json").JSONObject()
    assert native.number("aps_get_new_cookie_id") == 0
    assert native.number("__get_aps_hash", b"x") == 0
    assert native.text("cookieval_wrap", b"x") == b""
    assert native.unwrap(b"x") == (-1, b"x")


def test_one_appliance_at_a_time(simulator: Simulator) -> None:
    with pytest.raises(RuntimeError, match=r"^another appliance is open in this process"):
        Simulator(live=False)
    Native().certificate(b"x")
    assert len(simulator.call_log) == 1, "the open one goes on"


def test_a_closed_appliance_is_garbage(built: None) -> None:
    with Simulator(live=False) as simulator:
        folder = simulator.secret_path.parent
        alive = weakref.ref(simulator)
    del simulator
    gc.collect()
    assert alive() is None
    assert not folder.exists()


@pytest.fixture
def answers(monkeypatch: pytest.MonkeyPatch) -> ModuleType:
    """A module in the place of the default answers."""
    module = ModuleType("veldarin_simulator.providers")
    monkeypatch.setitem(sys.modules, "veldarin_simulator.providers", module)
    return module


def test_default_answers_are_asked_for_the_scenario_and_live(
    built: None, answers: Any, tmp_path: Path
) -> None:
    asked = []

    def default_answers(scenario: Path | None, live: bool) -> dict[str, Reply]:
        asked.append((scenario, live))
        return {
            "aps_get_new_cookie_id": Reply(lambda: 9, "live"),
            "serial_number_ascii": Reply(b"SN2", "recorded"),
            "get_preference_cookie_secret_path": Reply(tmp_path / "kept", "live"),
        }

    answers.default_answers = default_answers
    with Simulator() as simulator:
        assert Native().number("aps_get_new_cookie_id") == 9
        assert simulator.source("aps_get_new_cookie_id") == "live"
        assert (serial_number(), simulator.source("serial_number_ascii")) == (b"SN2", "recorded")
        assert simulator.secret_path == tmp_path / "kept"
        assert simulator.source("get_preference_cookie_secret_path") == "live"
    with Simulator(scenario=tmp_path, live=False):
        pass
    with Simulator(live=False):
        pass
    assert asked == [(None, True), (tmp_path, False)]


def test_a_failing_default_answer_closes_the_appliance(built: None, answers: Any) -> None:
    answers.default_answers = fail
    with pytest.raises(LookupError, match="no answer"):
        Simulator()
    with Simulator(live=False) as simulator:
        assert simulator.call_log == []


def test_without_a_build_one_line_says_what_to_do(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("MODULES_UTIL_BUILD", str(tmp_path))
    script = "from veldarin_simulator import Simulator; Simulator(live=False)"
    process = subprocess.run(
        [sys.executable, "-c", script],
        cwd=native_library.ROOT,
        capture_output=True,
        text=True,
        check=False,
    )
    assert process.returncode == 1
    last = process.stderr.splitlines()[-1]
    assert (
        last == f"RuntimeError: the stand-in appliance is not built in {tmp_path}: run `make build`"
    )


def test_a_process_keeps_to_one_build(
    simulator: Simulator, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("MODULES_UTIL_BUILD", str(tmp_path))
    with pytest.raises(RuntimeError, match=r"^this process has loaded .*: start another for "):
        native_library.load()
