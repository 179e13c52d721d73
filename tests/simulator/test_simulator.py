"""The simulator: its call log, its counts of live objects, opening and closing."""

from __future__ import annotations

import ctypes
import gc
import importlib
import os
import tempfile
import tracemalloc
import weakref
from collections.abc import Iterator
from contextlib import suppress
from pathlib import Path
from typing import Any

import pytest

from tests.simulator.native import (
    CAPTURE_SERVICES,
    LG_STATE,
    RELEASE,
    Native,
    capsule_pointer,
    fail,
    release,
    value_of,
)
from veldarin_simulator import (
    GILProbes,
    LiveObjects,
    NativeCall,
    RawJSON,
    Reply,
    Scenario,
    Simulator,
    Source,
    native_library,
    providers,
)


def test_call_log_has_calls_in_order(
    simulator: Simulator, native: Native, json_object: Any
) -> None:
    request = json_object({"mkey": "é/"})
    native.json(LG_STATE, 0x10, value_of(request))
    native.json(CAPTURE_SERVICES[1], None, value_of(request), 0x20)
    native.command(b"get system arp", 0x30)
    native.number("aps_get_new_cookie_id")
    native.unwrap(b"wrapped")
    release(request)
    assert simulator.call_log == [
        NativeCall(LG_STATE, 0x10, '{"mkey":"é/"}', None, None),
        NativeCall(CAPTURE_SERVICES[1], None, '{"mkey":"é/"}', 0x20, None),
        NativeCall("get_cli_cmd_output", 0x30, None, None, b"get system arp"),
        NativeCall("aps_get_new_cookie_id"),
        NativeCall("cookieval_unwrap", None, None, None, b"wrapped"),
        NativeCall(RELEASE, None, '{"mkey":"é/"}', None, None),
    ]


def test_serializer_is_logged_only_when_recorded(simulator: Simulator, native: Native) -> None:
    serializer = "json_object_to_json_string"
    simulator.set_reply(LG_STATE, {"a": [1, "/"]})
    reply = native.json(LG_STATE, None, None)
    before = native.rendered(reply)
    assert [call.service for call in simulator.call_log] == [LG_STATE]
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


def test_gil_probe_ends_when_set_to_none(simulator: Simulator, native: Native) -> None:
    simulator.probe_gil(ctypes.c_ulong(), 1)
    native.number("aps_get_new_cookie_id")
    assert simulator.gil_probes == GILProbes(calls=1, released=0)
    simulator.probe_gil(None)
    native.number("aps_get_new_cookie_id")
    assert simulator.gil_probes == GILProbes(calls=0, released=0)


def test_clear_calls_works_during_a_call(simulator: Simulator, native: Native) -> None:
    def reply() -> int:
        simulator.clear_calls()
        native.certificate(b"x")
        return 7

    simulator.set_reply("aps_get_new_cookie_id", reply)
    assert native.number("aps_get_new_cookie_id") == 7
    assert [(call.service, call.source) for call in simulator.call_log] == [
        ("gui_chk_cert_expiration", "none")
    ]
    simulator.clear_calls()
    assert simulator.call_log == []


def test_full_call_log_keeps_the_latest_calls(simulator: Simulator, json_object: Any) -> None:
    empty = json_object()
    number = 100_000
    for _ in range(number):
        release(empty)
    assert len(simulator.call_log) == number
    release(json_object({"last": True}))
    kept = simulator.call_log
    assert len(kept) == number // 2 + 1
    assert kept[-1].request == '{"last":true}'


def test_source_is_that_of_the_last_reply(simulator: Simulator, native: Native) -> None:
    sources: Iterator[Source] = iter(["live", "recorded"])
    simulator.set_reply(LG_STATE, lambda request: Reply(None, next(sources)))
    simulator.set_reply("__get_aps_hash", Reply(5, "recorded"))
    assert simulator.source("get_cli_cmd_output") == "none"
    assert simulator.source(LG_STATE) == "scripted"
    assert simulator.source("__get_aps_hash") == "recorded"
    native.json(LG_STATE, None, None)
    assert simulator.source(LG_STATE) == "live"
    native.json(LG_STATE, None, None)
    assert simulator.source(LG_STATE) == "recorded"
    simulator.set_reply(LG_STATE, None)
    assert simulator.source(LG_STATE) == "scripted"
    native.number("__get_aps_hash", b"x")
    native.command(b"x")
    assert [call.source for call in simulator.call_log] == ["live", "recorded", "recorded", "none"]


def test_json_objects_count_until_freed(
    simulator: Simulator, native: Native, json_object: Any
) -> None:
    replies = []
    values: list[object] = [[1], {"a": {}}, 1.5, "x", RawJSON("{oops")]
    for value in values:
        simulator.set_reply(LG_STATE, value)
        replies.append(native.json(LG_STATE, None, None))
    released, dropped = json_object({"a": [1.5]}), json_object({})
    assert simulator.live_objects == LiveObjects(7, 0)
    for left, reply in zip((6, 5, 4, 3, 2), replies):
        native.put(reply)
        assert simulator.live_objects == LiveObjects(left, 0)
    release(released)
    assert simulator.live_objects.json_objects == 1
    release(released)  # without value
    del dropped
    assert simulator.live_objects.json_objects == 0


def test_text_buffers_count_until_freed(simulator: Simulator, native: Native) -> None:
    simulator.set_reply("get_cli_cmd_output", "x")
    buffers = [native.command(b"x") for _ in range(3)]
    assert simulator.live_objects == LiveObjects(0, 3)
    resize = ctypes.pythonapi["PyMem_Realloc"]
    resize.restype, resize.argtypes = ctypes.c_void_p, [ctypes.c_void_p, ctypes.c_size_t]
    buffers[0] = resize(buffers[0], 100_000)
    assert simulator.live_objects.text_buffers == 3
    for left, buffer in zip((2, 1, 0), buffers):
        native.take(buffer)
        assert simulator.live_objects.text_buffers == left


class Allocator(ctypes.Structure):
    """PyMemAllocatorEx."""

    NAMES = ("ctx", "malloc", "calloc", "realloc", "free")
    _fields_ = tuple((name, ctypes.c_void_p) for name in NAMES)


def allocator() -> tuple[int | None, ...]:
    """Return the allocator of the interpreter's PyMem functions."""
    current = Allocator()
    get = ctypes.pythonapi["PyMem_GetAllocator"]
    get.restype, get.argtypes = None, [ctypes.c_int, ctypes.c_void_p]
    get(1, ctypes.byref(current))
    return tuple(getattr(current, name) for name in Allocator.NAMES)


def test_allocator_is_wrapped_only_while_tracking(build: None) -> None:
    before = allocator()
    with Simulator(live=False):
        assert allocator() != before
    assert allocator() == before
    with Simulator(live=False, track_buffers=False) as simulator:
        assert allocator() == before
        with pytest.raises(RuntimeError, match="opened with track_buffers=False"):
            simulator.live_objects  # noqa: B018


def test_tracking_works_beside_tracemalloc(build: None) -> None:
    native = Native()
    before = allocator()
    with Simulator(live=False):
        tracemalloc.start()
        others = allocator()
    assert allocator() == others
    with Simulator(live=False) as simulator:  # tracemalloc is on top; wrap once
        simulator.set_reply("get_cli_cmd_output", "x")
        buffer = native.command(b"x")
        assert simulator.live_objects.text_buffers == 1
        native.take(buffer)
        assert simulator.live_objects.text_buffers == 0
        tracemalloc.stop()
    assert allocator() == before


def secret_path() -> bytes:
    """Return the path that the module gets."""
    exported = importlib.import_module("veldarin.modules.modules").__pyx_capi__
    address = capsule_pointer(exported["get_preference_cookie_secret_path"], b"char *(void)")
    return bytes(ctypes.PYFUNCTYPE(ctypes.c_char_p)(address)())


def test_secret_path_is_temporary_or_as_set(simulator: Simulator, tmp_path: Path) -> None:
    own = simulator.secret_path
    assert secret_path() == str(own).encode()
    assert own.parent.is_dir()
    simulator.secret_path = tmp_path / "secret"
    assert secret_path() == str(tmp_path / "secret").encode()
    simulator.close()
    assert not own.parent.exists()


def test_temporary_directory_is_made_at_first_use(
    build: None, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A process that is killed before leaves no files."""
    monkeypatch.setattr(tempfile, "tempdir", str(tmp_path))
    with Simulator() as simulator:
        assert simulator.module.new_cookie_id() is not None
        simulator.reset()
        assert not [*tmp_path.iterdir()]
        simulator.module.get_token()
        assert [file.parent.parent for file in tmp_path.glob("simulator-*/*")] == [tmp_path]
    assert not [*tmp_path.iterdir()]
    assert secret_path() == b""


def test_temporary_directory_that_cannot_be_made_is_reported(
    simulator: Simulator, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(tempfile, "tempdir", str(tmp_path / "missing"))
    monkeypatch.chdir(tmp_path)
    with pytest.raises(IsADirectoryError):
        simulator.module.get_token()
    with pytest.raises(FileNotFoundError, match="missing/simulator-"):
        simulator.raise_errors()
    (tmp_path / "missing").mkdir()
    assert simulator.module.get_token()


def test_forked_process_deletes_its_own_directory(simulator: Simulator) -> None:
    child = os.fork()
    if child == 0:  # pragma: no cover
        own = simulator.secret_path.parent
        simulator.close()
        os._exit(own.exists())
    assert os.waitpid(child, 0)[1] == 0


def serial_number() -> object:
    return importlib.import_module("migbase.cmdbapi.cmdbapi_util").serial_number_ascii()


def test_serial_number_is_as_set(simulator: Simulator) -> None:
    assert serial_number() == simulator.serial_number == b"SIMULATOR0000001"
    simulator.serial_number = b"SN1"
    assert serial_number() == simulator.serial_number == b"SN1"


def test_close_resets_replies_hooks_and_counts(build: None, tmp_path: Path) -> None:
    native = Native()
    json_object = importlib.import_module("util.json").JSONObject
    with Simulator(live=False) as simulator:
        simulator.set_reply("aps_get_new_cookie_id", 5)
        simulator.set_fixed_reply("__get_aps_hash", 6)
        simulator.serial_number = b"SN1"
        simulator.secret_path = tmp_path
        simulator.default_response = RawJSON("1")
        simulator.on_create = fail
        simulator.on_release = fail
        simulator.record_serializer()
        simulator.set_reply(LG_STATE, [1])
        simulator.set_reply("get_cli_cmd_output", "x")
        reply, buffer = native.json(LG_STATE, None, None), native.command(b"x")
        assert simulator.live_objects == LiveObjects(1, 1)
        native.rendered(reply)
        assert len(simulator.call_log) == 3
        simulator.probe_gil(ctypes.c_ulong(), 1)
    with Simulator(live=False) as simulator:
        native.rendered(reply)
        assert simulator.call_log == []
        assert simulator.live_objects == LiveObjects(0, 0)
        native.put(reply)
        native.take(buffer)
        assert simulator.live_objects == LiveObjects(0, 0)
        assert native.number("aps_get_new_cookie_id") == 0
        assert simulator.gil_probes == GILProbes(calls=0, released=0)
        assert native.number("__get_aps_hash", b"x") == 0
        assert serial_number() == b"SIMULATOR0000001"
        assert simulator.secret_path != tmp_path
        empty = json_object()
        hooks = (simulator.on_create, simulator.on_release)
        assert (simulator.default_response, *hooks) == (None, None, None)
        assert str(empty) == "null"
        release(empty)
        simulator.set_reply("aps_get_new_cookie_id", 5)
        simulator.set_fixed_reply("__get_aps_hash", 6)
        simulator.on_create = fail
    simulator.close()  # again
    json_object()
    assert native.number("aps_get_new_cookie_id") == 0
    assert native.number("__get_aps_hash", b"x") == 0
    assert native.text("cookieval_wrap", b"x") == b""
    assert native.unwrap(b"x") == (-1, b"x")


def test_second_open_simulator_raises(simulator: Simulator) -> None:
    with pytest.raises(RuntimeError, match=r"^another simulator is open in this process"):
        Simulator(live=False)
    Native().certificate(b"x")
    assert len(simulator.call_log) == 1


def test_closed_simulator_is_garbage(build: None) -> None:
    with Simulator(live=False) as simulator:
        folder = simulator.secret_path.parent
        alive = weakref.ref(simulator)
    del simulator
    gc.collect()
    assert alive() is None
    assert not folder.exists()


def test_providers_get_scenario_and_live(
    build: None, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    created = []

    class FakeProviders:
        def __init__(self, scenario: Scenario, live: bool) -> None:
            created.append((scenario, live))

        def replies(self) -> dict[str, Reply]:
            return {
                "aps_get_new_cookie_id": Reply(lambda: 9, "live"),
                "serial_number_ascii": Reply(b"SN2", "recorded"),
                "get_preference_cookie_secret_path": Reply(tmp_path / "kept", "live"),
            }

    monkeypatch.setattr(providers, "Providers", FakeProviders)
    with Simulator() as simulator:
        assert Native().number("aps_get_new_cookie_id") == 9
        assert simulator.source("aps_get_new_cookie_id") == "live"
        assert (serial_number(), simulator.source("serial_number_ascii")) == (b"SN2", "recorded")
        assert simulator.secret_path == tmp_path / "kept"
        assert simulator.source("get_preference_cookie_secret_path") == "live"
    scenario = Scenario({"build_switch_lg_state.json": b"[]"})
    with Simulator(scenario, live=False):
        pass
    with Simulator(live=False):
        pass
    assert created == [(Scenario(), True), (scenario, False)]


def test_failing_provider_closes_the_simulator(
    build: None, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(providers, "Providers", fail)
    with pytest.raises(LookupError, match="no reply"):
        Simulator()
    with Simulator(live=False) as simulator:
        assert simulator.call_log == []


def test_second_build_in_a_process_raises(
    simulator: Simulator, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("MODULES_UTIL_BUILD", str(tmp_path))
    with pytest.raises(RuntimeError, match=r"^this process has loaded .*: start another for "):
        native_library.load()


def test_forked_process_keeps_the_simulator(simulator: Simulator) -> None:
    """The child uses and closes its copy; the parent's goes on, with its files."""
    simulator.set_reply("build_switch_lg_state", lambda request: ["shared"])
    simulator.secret_path.write_text("0" * 64)
    module = simulator.module
    child = os.fork()
    if child == 0:  # pragma: no cover
        try:
            assert module.list_switch_lg_state() == ["shared"]
            assert len(simulator.calls("build_switch_lg_state")) == 1
            simulator.close()
            with Simulator(live=False) as another:
                assert module.list_switch_lg_state() is None
                assert len(another.calls("build_switch_lg_state")) == 1
            os._exit(0)
        except BaseException:
            os._exit(1)
    assert os.waitpid(child, 0)[1] == 0
    assert simulator.secret_path.exists()
    assert simulator.calls("build_switch_lg_state") == []
    assert module.list_switch_lg_state() == ["shared"]


def test_reset_makes_the_simulator_new(simulator: Simulator, tmp_path: Path) -> None:
    own_file = tmp_path / "secret"
    own_file.write_text("kept")
    simulator.shared_sessions["left"] = {}
    simulator.set_reply("build_switch_lg_state", ["old"])
    simulator.set_reply("build_switch_lldp_state", fail)
    simulator.set_fixed_reply("aps_get_new_cookie_id", 7)
    simulator.default_response = RawJSON("[1]")
    simulator.on_create = simulator.on_release = fail
    simulator.serial_number = b"ANOTHER"
    simulator.secret_path.write_text("made by get_token")
    simulator.secret_path = own_file
    simulator.record_serializer()
    with suppress(Exception):
        simulator.module.list_switch_lldp_state(None)
    simulator.reset()
    assert simulator.call_log == []
    assert simulator.shared_sessions == {}
    assert simulator.module.list_switch_lg_state() is None
    assert simulator.module.new_cookie_id() == 0
    assert simulator.module.serial_number_ascii() != b"ANOTHER"
    assert [call.service for call in simulator.call_log][:2] == ["build_switch_lg_state", RELEASE]
    assert simulator.default_response != RawJSON("[1]")
    assert not simulator.secret_path.exists()
    assert own_file.read_text() == "kept"
    simulator.raise_errors()


def test_reset_keeps_scenario(build: None) -> None:
    scenario = Scenario({"build_switch_lg_state.json": b"[1]"})
    with Simulator(scenario, live=False) as simulator:
        simulator.use_scenario(Scenario())
        assert simulator.module.list_switch_lg_state() is None
        simulator.reset()
        assert simulator.module.list_switch_lg_state() == [1]


def test_shared_sessions_are_those_of_the_module(simulator: Simulator) -> None:
    simulator.set_reply("get_cli_cmd_output", "header\npeer 192.0.2.1 interface port1\n")
    sessions = simulator.shared_sessions
    try:
        assert simulator.module.get_bfd_neighbor("") is sessions
        assert simulator.shared_sessions is sessions
        assert [*sessions] == ["192.0.2.1_port1"]
        assert len(simulator.call_log) == 1
    finally:
        sessions.clear()


def test_calls_of_one_service_have_arguments(simulator: Simulator) -> None:
    module = simulator.module
    simulator.set_reply("get_cli_cmd_output", "text")
    module.list_switch_port_statistics("port1")
    module.get_cli_command_output("get system arp")
    module.list_switch_port_statistics(None)
    module.new_cookie_id()
    module.check_cert_expiration(b"/\xff")
    assert simulator.calls("build_switch_port_statistics").arguments == [
        {"port_name": "port1"},
        {},
    ]
    assert simulator.calls("get_cli_cmd_output").arguments == ["get system arp"]
    assert simulator.calls("aps_get_new_cookie_id").arguments == [None]
    assert simulator.calls("gui_chk_cert_expiration").arguments == [b"/\xff"]
    assert simulator.calls("build_switch_lg_state") == []
    with pytest.raises(ValueError, match="did you mean build_switch_lg_state"):
        simulator.calls("build_switch_lg_stat")


def test_call_assertions_hold_or_name_calls(simulator: Simulator) -> None:
    module = simulator.module
    lg_state = simulator.calls(LG_STATE)
    lg_state.assert_not_called()
    with pytest.raises(AssertionError, match=r"expected one call, found 0 calls.*: none$"):
        lg_state.assert_called_once()
    module.list_switch_port_statistics("port1")
    module.new_cookie_id()
    ports = simulator.calls("build_switch_port_statistics")
    ports.assert_called_once()
    ports.assert_called_once_with({"port_name": "port1"})
    ports.assert_any_call({"port_name": "port1"})
    for check, expected in [
        (ports.assert_not_called, "no call"),
        (lambda: ports.assert_called_once_with({}), "one call with {}"),
        (lambda: ports.assert_any_call({}), "a call with {}"),
    ]:
        with pytest.raises(AssertionError) as raised:
            check()
        assert str(raised.value) == (
            f"build_switch_port_statistics: expected {expected}, found 1 call; native calls:\n"
            "> build_switch_port_statistics({'port_name': 'port1'})\n"
            "  aps_get_new_cookie_id()"
        )
    module.list_switch_port_statistics(None)
    ports = simulator.calls("build_switch_port_statistics")
    ports.assert_any_call({})
    for check in (ports.assert_called_once, lambda: ports.assert_called_once_with({})):
        with pytest.raises(AssertionError, match="found 2 calls"):
            check()
