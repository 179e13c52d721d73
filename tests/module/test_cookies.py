"""Cookie identifiers, names and values: native calls, results and every error."""

from __future__ import annotations

import ctypes
import tracemalloc
from types import ModuleType
from typing import Any, Callable

import pytest

from tests.support import isolated
from tests.support.assertions import entry, is_increasing, raises_exactly
from tests.support.doubles import CountingBool, Recorder, raiser
from tests.support.module_patch import Patch
from veldarin_simulator import Simulator

ULONG_MAX = 2 ** (8 * ctypes.sizeof(ctypes.c_ulong)) - 1
GREATEST = pytest.param(ULONG_MAX, id="ULONG_MAX")


def texts(simulator: Simulator) -> list[tuple[str, bytes | None]]:
    """The native calls in order, each with its text argument."""
    return [(call.service, call.text) for call in simulator.call_log]


def traced(call: Callable[[], object]) -> tuple[Any, int, int]:
    """The result of a call, the bytes that it left allocated, and the most that it allocated."""
    tracemalloc.start()
    try:
        before = tracemalloc.get_traced_memory()[0]
        result = call()
        after, peak = tracemalloc.get_traced_memory()
    finally:
        tracemalloc.stop()
    return result, after - before, peak - before


# new_cookie_id


@pytest.mark.parametrize("identifier", [0, 1, 2**31 - 1, 2**31, 4294967295, GREATEST])
def test_new_cookie_id_is_unsigned_native_value(
    simulator: Simulator, module: ModuleType, identifier: int
) -> None:
    simulator.set_reply("aps_get_new_cookie_id", identifier)
    result = module.new_cookie_id()
    assert (type(result), result) == (int, identifier)
    assert texts(simulator) == [("aps_get_new_cookie_id", None)]


def test_new_cookie_id_calls_service_each_time(simulator: Simulator, module: ModuleType) -> None:
    identifiers = iter([3, 1, 2])
    simulator.set_reply("aps_get_new_cookie_id", lambda: next(identifiers))
    assert [module.new_cookie_id() for _ in range(3)] == [3, 1, 2]


# aps_unsigned_int_hash


@pytest.mark.parametrize("value", [0, 2**31, 4294967295, GREATEST])
def test_hash_is_unsigned_native_value(
    simulator: Simulator, module: ModuleType, value: int
) -> None:
    simulator.set_reply("__get_aps_hash", value)
    result = module.aps_unsigned_int_hash(b"serial")
    assert (type(result), result) == (int, value)


@pytest.mark.parametrize(
    "characters, hashed",
    [
        (b"", b""),
        (b"abc", b"abc"),
        (bytes(range(1, 256)), bytes(range(1, 256))),
        (b"ab\0cd", b"ab"),
        (b"\0ab", b""),
    ],
)
def test_hash_input_ends_at_first_nul(
    simulator: Simulator, module: ModuleType, characters: bytes, hashed: bytes
) -> None:
    simulator.set_reply("__get_aps_hash", lambda text: len(text) + 1000)
    assert module.aps_unsigned_int_hash(characters) == len(hashed) + 1000
    assert texts(simulator) == [("__get_aps_hash", hashed)]


# get_cookie_name


@pytest.mark.parametrize(
    "https, name",
    [
        (True, "APSCOOKIE_4294967295"),
        (1, "APSCOOKIE_4294967295"),
        ([0], "APSCOOKIE_4294967295"),
        ("no", "APSCOOKIE_4294967295"),
        (False, "APCOOKIE_4294967295"),
        (0, "APCOOKIE_4294967295"),
        (None, "APCOOKIE_4294967295"),
        ("", "APCOOKIE_4294967295"),
        ([], "APCOOKIE_4294967295"),
    ],
)
def test_cookie_name_is_prefix_and_serial_number_hash(
    simulator: Simulator, module: ModuleType, https: object, name: str
) -> None:
    simulator.serial_number = b"SN0123456789"
    simulator.set_reply("__get_aps_hash", 4294967295)
    for _ in range(2):
        simulator.clear_calls()
        result = module.get_cookie_name(https)
        assert (type(result), result) == (str, name)
        assert texts(simulator) == [("__get_aps_hash", b"SN0123456789")]


def test_cookie_name_tests_truth_once(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply("__get_aps_hash", 5)
    https = CountingBool(True)
    assert module.get_cookie_name(https) == "APSCOOKIE_5"
    assert https.bool_calls == 1


def test_cookie_name_truth_error_propagates(simulator: Simulator, module: ModuleType) -> None:
    error = LookupError("no truth")
    assert raises_exactly(LookupError, module.get_cookie_name, CountingBool(error)) is error
    assert entry(error, "get_cookie_name").line
    assert simulator.call_log == []


class Shown:
    """A value that records its formatting."""

    def __init__(self, text: str, events: list[object]) -> None:
        self.text = text
        self.events = events

    def __format__(self, how: str) -> str:
        self.events.append(("format", self.text, how))
        return self.text


@pytest.mark.parametrize("https, prefix", [(True, b"APSCOOKIE"), (False, b"APCOOKIE")])
def test_cookie_name_calls_in_order(
    module: ModuleType, patch: Patch, https: bool, prefix: bytes
) -> None:
    events: list[object] = []
    serial = object()

    def recording(name: str, result: object) -> Any:
        def note(*args: object, **kwargs: object) -> object:
            events.append((name, args, kwargs))
            return result

        return note

    patch("text_", recording("text_", Shown("P", events)))
    patch("serial_number_ascii", recording("serial", serial))
    patch("aps_unsigned_int_hash", recording("hash", Shown("H", events)))
    assert module.get_cookie_name(https) == "P_H"
    assert events == [
        ("text_", (prefix, "utf-8"), {}),
        ("serial", (), {}),
        ("hash", (serial,), {}),
        ("format", "P", ""),
        ("format", "H", ""),
    ]


@pytest.mark.parametrize("https", [True, False])
def test_cookie_name_is_decoded_as_utf_8(
    simulator: Simulator, module: ModuleType, patch: Patch, https: bool
) -> None:
    text_ = Recorder(lambda value, encoding: "prefix")
    patch("text_", text_)
    patch("_CHARSET", "utf-16")
    module.get_cookie_name(https)
    patch.delete("_CHARSET")
    module.get_cookie_name(https)
    assert [encoding for _value, encoding in text_.positional] == ["utf-8", "utf-8"]


def test_cookie_name_decodes_new_prefix_each_time(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    text_ = Recorder(lambda value, encoding: value.decode(encoding))
    patch("text_", text_)
    assert module.get_cookie_name(True) == module.get_cookie_name(True)
    (first, _), (second, _) = text_.positional
    assert type(first) is bytes
    assert first == second
    assert first is not second


def test_cookie_name_looks_up_text_before_truth_test(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    before = Recorder(lambda value, encoding: "before")

    class Rebinds:
        def __bool__(self) -> bool:
            patch("text_", lambda value, encoding: "after")
            return True

    patch("text_", before)
    assert module.get_cookie_name(Rebinds()) == "before_0"
    assert before.positional == [(b"APSCOOKIE", "utf-8")]


def test_cookie_name_looks_up_hash_after_prefix(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    def text_(value: bytes, encoding: str) -> str:
        patch("aps_unsigned_int_hash", lambda serial: ("hash of", serial))
        patch("serial_number_ascii", lambda: "serial")
        return "prefix"

    patch("text_", text_)
    assert module.get_cookie_name(True) == "prefix_('hash of', 'serial')"


def test_cookie_name_looks_up_hash_before_serial_number(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    def serial_number_ascii() -> bytes:
        patch("aps_unsigned_int_hash", lambda serial: "too late")
        return b"SN"

    simulator.set_reply("__get_aps_hash", 77)
    patch("serial_number_ascii", serial_number_ascii)
    assert module.get_cookie_name(False) == "APCOOKIE_77"


@pytest.mark.parametrize("name", ["text_", "aps_unsigned_int_hash", "serial_number_ascii"])
def test_cookie_name_missing_global_raises_name_error(
    simulator: Simulator, module: ModuleType, patch: Patch, name: str
) -> None:
    patch.delete(name)
    error = raises_exactly(NameError, module.get_cookie_name, True)
    assert str(error) == f"name '{name}' is not defined"
    assert entry(error, "get_cookie_name").line


@pytest.mark.parametrize(
    "missing, named",
    [
        (["text_", "aps_unsigned_int_hash", "serial_number_ascii"], "text_"),
        (["aps_unsigned_int_hash", "serial_number_ascii"], "aps_unsigned_int_hash"),
    ],
)
def test_cookie_name_looks_up_globals_in_order(
    simulator: Simulator, module: ModuleType, patch: Patch, missing: list[str], named: str
) -> None:
    for name in missing:
        patch.delete(name)
    assert (
        str(raises_exactly(NameError, module.get_cookie_name, 1))
        == f"name '{named}' is not defined"
    )


@pytest.mark.parametrize("name", ["text_", "aps_unsigned_int_hash", "serial_number_ascii"])
def test_cookie_name_call_error_propagates(
    simulator: Simulator, module: ModuleType, patch: Patch, name: str
) -> None:
    error = LookupError("not now")
    patch(name, raiser(error))
    assert raises_exactly(LookupError, module.get_cookie_name, True) is error
    assert entry(error, "get_cookie_name").line


@pytest.mark.parametrize(
    "serial, text",
    [
        (None, "expected bytes, NoneType found"),
        ("SN", "Argument 'characters' has incorrect type (expected bytes, got str)"),
        (
            bytearray(b"SN"),
            "Argument 'characters' has incorrect type (expected bytes, got bytearray)",
        ),
    ],
)
def test_cookie_name_serial_number_must_be_bytes(
    simulator: Simulator, module: ModuleType, patch: Patch, serial: object, text: str
) -> None:
    patch("serial_number_ascii", lambda: serial)
    error = raises_exactly(TypeError, module.get_cookie_name, True)
    assert str(error) == text
    assert entry(error, "get_cookie_name").line < 94
    assert entry(error, "aps_unsigned_int_hash").line < entry(error, "get_cookie_name").first_line
    assert simulator.call_log == []


# encrypt_cookie and decrypt_cookie


@pytest.mark.parametrize(
    "plain, wrapped_from",
    [(b"", b""), (b"value", b"value"), (b"\xff\x01", b"\xff\x01"), (b"val\0ue", b"val")],
)
def test_encrypt_input_ends_at_first_nul(
    simulator: Simulator, module: ModuleType, plain: bytes, wrapped_from: bytes
) -> None:
    simulator.set_reply("cookieval_wrap", lambda text: b"<" + text + b">")
    result = module.encrypt_cookie(plain)
    assert (type(result), result) == (bytes, b"<" + wrapped_from + b">")
    assert texts(simulator) == [("cookieval_wrap", wrapped_from)]


@pytest.mark.parametrize("wrapped, result", [(b"", b""), (b"x" * 5000, b"x" * 5000)])
def test_encrypt_returns_wrapped_value(
    simulator: Simulator, module: ModuleType, wrapped: bytes, result: bytes
) -> None:
    simulator.set_reply("cookieval_wrap", wrapped)
    assert module.encrypt_cookie(b"") == result
    assert simulator.live_objects.text_buffers == 0


@pytest.mark.parametrize(
    "encrypted, copied, unwrapped",
    [
        (b"", b"", b""),
        (b"value", b"value", b"VAL"),
        (b"value", b"value", b""),
        (b"\xff\x01", b"\xff\x01", b"\x80"),
        (b"val\0ue", b"val", b"V"),
    ],
)
def test_decrypt_unwraps_copy_up_to_first_nul(
    simulator: Simulator, module: ModuleType, encrypted: bytes, copied: bytes, unwrapped: bytes
) -> None:
    simulator.set_reply("cookieval_unwrap", lambda text: unwrapped)
    before = bytes(bytearray(encrypted))
    result = module.decrypt_cookie(encrypted)
    assert (type(result), result) == (bytes, unwrapped)
    assert texts(simulator) == [("cookieval_unwrap", copied)]
    assert encrypted == before, "the caller's bytes are not the working buffer"


@pytest.mark.parametrize("function", ["encrypt_cookie", "decrypt_cookie"])
def test_cookie_value_ends_at_first_nul(
    simulator: Simulator, module: ModuleType, function: str
) -> None:
    simulator.set_reply("cookieval_wrap", b"ab\0cd")
    simulator.set_reply("cookieval_unwrap", b"ab\0cd")
    assert getattr(module, function)(b"cookie") == b"ab"


@pytest.mark.parametrize(
    "encrypted", [bytes(1_000_000), b"x" * 1_000_000], ids=["nothing before a NUL", "all text"]
)
def test_decrypt_buffer_has_size_of_whole_argument(
    simulator: Simulator, module: ModuleType, encrypted: bytes
) -> None:
    simulator.set_fixed_reply("cookieval_unwrap", b"")
    result, kept, peak = traced(lambda: module.decrypt_cookie(encrypted))
    assert result == b""
    assert 1_000_001 <= peak < 1_010_000
    assert kept < 10_000


@pytest.mark.parametrize(
    "function, service, reply, result",
    [
        ("aps_unsigned_int_hash", "__get_aps_hash", 7, 7),
        ("encrypt_cookie", "cookieval_wrap", b"w", b"w"),
        ("check_cert_expiration", "gui_chk_cert_expiration", 0, True),
    ],
)
def test_service_gets_argument_bytes_without_copy(
    simulator: Simulator,
    module: ModuleType,
    function: str,
    service: str,
    reply: object,
    result: object,
) -> None:
    simulator.set_fixed_reply(service, reply)
    text = b"x" * 1_000_000
    returned, _kept, peak = traced(lambda: getattr(module, function)(text))
    assert returned == result
    assert simulator.fixed_reply_calls(service) == 1
    assert peak < 10_000


@pytest.mark.workstation_only("no bytes object is that long with 32-bit sizes")
def test_decrypt_oversized_value_raises_before_allocation(
    simulator: Simulator, module: ModuleType
) -> None:
    encrypted = bytes(2**31 - 1)  # the pages are never touched
    refused, _kept, peak = traced(
        lambda: raises_exactly(OverflowError, module.decrypt_cookie, encrypted)
    )
    assert peak < 1_000_000
    found = entry(refused, "decrypt_cookie")
    assert found.line >= found.first_line
    assert simulator.call_log == []


@pytest.mark.workstation_only("no bytes object is that long with 32-bit sizes")
def test_decrypt_longest_value_is_unwrapped(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply("cookieval_unwrap", lambda text: text)
    assert module.decrypt_cookie(bytes(2**31 - 2)) == b""
    assert texts(simulator) == [("cookieval_unwrap", b"")]


def test_decrypt_calls_service_each_time(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply("cookieval_unwrap", lambda text: text[::-1])
    assert [module.decrypt_cookie(text) for text in (b"abc", b"de", b"")] == [b"cba", b"ed", b""]
    assert [call.service for call in simulator.call_log] == ["cookieval_unwrap"] * 3
    assert all(call.context is None for call in simulator.call_log)


# Allocation failures, each in a new process: the interpreter's allocators fail the requests from
# number `start` up to, not including, number `stop`.


def _exhausted(function: str, arguments: list[str], start: int, stop: int, logger: str) -> Any:
    """Call while allocations fail; return the error, the log, the native calls and the leaks."""
    import _testcapi

    from tests.support.assertions import traceback_entries
    from tests.support.doubles import RecordingLogger
    from veldarin_simulator import Simulator

    with Simulator(live=False) as simulator:
        module = simulator.module
        replies = {
            "cookieval_wrap": b"wrapped",
            "cookieval_unwrap": b"plain",
            "aps_get_new_cookie_id": 4294967295,
        }
        for service, reply in replies.items():
            simulator.set_fixed_reply(service, reply)
        call = getattr(module, function)
        values = [argument.encode() for argument in arguments]
        log = RecordingLogger()
        module.__dict__["_logger"] = log
        notes = log.error
        if logger:
            exec(logger, {"module": module, "log": log})
        error: Any = None
        _testcapi.set_nomemory(start, stop)
        try:
            call(*values)
        except Exception as raised:
            error = raised
        finally:
            _testcapi.remove_mem_hooks()
        return {
            "type": type(error).__name__,
            "own": type(error) is module.__dict__.get("CFunctionError"),
            "arguments": [str(argument) for argument in error.args],
            "entries": [entry.function for entry in traceback_entries(error.__traceback__)],
            "lines": [entry.line for entry in traceback_entries(error.__traceback__)],
            "logged": notes.calls,
            "called": [service for service in replies if simulator.fixed_reply_calls(service)],
            "text_buffers": simulator.live_objects.text_buffers,
        }


def exhausted(
    function: str, *arguments: str, start: int = 0, stop: int = 1, logger: str = ""
) -> dict[str, Any]:
    """The result of `_exhausted` in a new process."""
    result: dict[str, Any] = isolated.value(
        _exhausted, function, list(arguments), start, stop, logger
    )
    return result


@pytest.mark.parametrize(
    "function, arguments, failing, service, leaked",
    [
        ("new_cookie_id", [], 0, "aps_get_new_cookie_id", 0),
        ("encrypt_cookie", ["value"], 1, "cookieval_wrap", 1),  # freed on success only
        ("decrypt_cookie", ["value"], 1, "cookieval_unwrap", 0),
    ],
)
def test_result_without_memory_raises_memory_error(
    function: str, arguments: list[str], failing: int, service: str, leaked: int
) -> None:
    result = exhausted(function, *arguments, start=failing, stop=failing + 1)
    assert result["type"] == "MemoryError"
    assert result["entries"] == [function]
    assert result["called"] == [service]
    assert result["text_buffers"] == leaked
    assert result["logged"] == []


LONG = 400  # bytes of a cookie: a large block that is still one request to the allocator


def _left_behind(length: int, times: int, start: int, stop: int) -> int:
    """Bytes of the interpreter's allocator that `times` failing decryptions leak."""
    import _testcapi
    import tracemalloc

    from veldarin_simulator import Simulator

    with Simulator(live=False) as simulator:
        simulator.set_fixed_reply("cookieval_unwrap", b"plain text")
        simulator.module._logger.disabled = True
        decrypt = simulator.module.decrypt_cookie
        encrypted = b"e" * length

        def fail(count: int) -> None:
            for _ in range(count):
                _testcapi.set_nomemory(start, stop)
                try:
                    decrypt(encrypted)
                except Exception as error:
                    _testcapi.remove_mem_hooks()
                    error.__traceback__ = None
                else:
                    raise AssertionError("memory did not fail")

        tracemalloc.start()
        fail(5)
        before = tracemalloc.get_traced_memory()[0]
        fail(times)
        return tracemalloc.get_traced_memory()[0] - before


def test_decrypt_without_result_leaks_working_buffer() -> None:
    buffers = 200 * (LONG + 1)
    assert buffers <= isolated.value(_left_behind, LONG, 200, 1, 2) < buffers + 20_000


def test_decrypt_without_working_buffer_leaks_nothing() -> None:
    assert isolated.value(_left_behind, LONG, 200, 0, 1) < 20_000


LOG_TEXT = "Could not allocate memory for decreypt_cookie decrypted"


def test_decrypt_without_working_buffer_logs_and_raises() -> None:
    result = exhausted("decrypt_cookie", "value")
    assert result["type"] == "CFunctionError"
    assert result["own"]
    assert result["arguments"] == ["PyMem_Malloc"]
    assert result["entries"] == ["decrypt_cookie"]
    assert result["logged"] == [[[LOG_TEXT], {}]]
    assert result["called"] == [], "nothing is copied or unwrapped"


@pytest.mark.parametrize(
    "logger, kind, text, logged",
    [
        ("del module._logger", "NameError", "name '_logger' is not defined", False),
        ("del log.error", "AttributeError", None, False),
        ("del module.CFunctionError", "NameError", "name 'CFunctionError' is not defined", True),
        (
            "def fails(text): raise ValueError('full')\nlog.error.side_effect = fails",
            "ValueError",
            "full",
            True,
        ),
        (
            "def fails(text): raise LookupError(text + '!')\nmodule.CFunctionError = fails",
            "LookupError",
            "PyMem_Malloc!",
            True,
        ),
        (
            "class Late(Exception): pass\n"
            "log.error.side_effect = lambda text: setattr(module, 'CFunctionError', Late)",
            "Late",
            "PyMem_Malloc",
            True,
        ),
    ],
    ids=[
        "no logger",
        "logger without error",
        "no exception class",
        "failing log",
        "failing exception class",
        "exception class rebound while logging",
    ],
)
def test_decrypt_failure_reports_missing_global(
    logger: str, kind: str, text: str | None, logged: bool
) -> None:
    result = exhausted("decrypt_cookie", "value", logger=logger)
    assert result["type"] == kind
    if text is None:
        text = "'RecordingLogger' object has no attribute 'error'"
    assert result["arguments"] == [text]
    assert result["entries"] == ["decrypt_cookie"]
    assert result["logged"] == ([[[LOG_TEXT], {}]] if logged else [])


def test_traceback_lines_increase_with_statements() -> None:
    new_cookie_id = exhausted("new_cookie_id")["lines"]
    encrypt = exhausted("encrypt_cookie", "value", start=1, stop=2)["lines"]
    decrypt = [
        exhausted("decrypt_cookie", "value", logger="del module._logger")["lines"],
        exhausted("decrypt_cookie", "value")["lines"],
        exhausted("decrypt_cookie", "value", start=1, stop=2)["lines"],
    ]
    lines = [*new_cookie_id, *encrypt, *(line for found in decrypt for line in found)]
    assert len(lines) == 5
    assert is_increasing(lines)
