"""Cookie identifiers, names and values: native calls, results and every error."""

from __future__ import annotations

import ctypes
import tracemalloc
from types import ModuleType
from typing import Any, Callable, NamedTuple

import pytest

from tests.support import isolated
from tests.support.assertions import entry, fails, wrong_type_message
from tests.support.doubles import CountingBool, Failure, Recorder, raiser
from tests.support.module_patch import Patch
from veldarin_simulator import Simulator

LONG_BITS = 8 * ctypes.sizeof(ctypes.c_ulong)


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


# new_cookie_id and aps_unsigned_int_hash


@pytest.mark.parametrize(
    "function, arguments, service",
    [
        ("new_cookie_id", [], "aps_get_new_cookie_id"),
        ("aps_unsigned_int_hash", [b"serial"], "__get_aps_hash"),
    ],
)
def test_result_is_unsigned_native_value(
    simulator: Simulator, module: ModuleType, function: str, arguments: list[bytes], service: str
) -> None:
    for number in (0, 2**31 - 1, 2**LONG_BITS - 1, *(2**bit for bit in range(LONG_BITS))):
        simulator.clear_calls()
        simulator.set_reply(service, number)
        result = getattr(module, function)(*arguments)
        assert (type(result), result) == (int, number)
        assert texts(simulator) == [(service, arguments[0] if arguments else None)]


def test_new_cookie_id_calls_service_each_time(simulator: Simulator, module: ModuleType) -> None:
    identifiers = iter([3, 1, 2])
    simulator.set_reply("aps_get_new_cookie_id", lambda: next(identifiers))
    assert [module.new_cookie_id() for _ in range(3)] == [3, 1, 2]


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
    "https", [True, 1, [0], "no", False, 0, None, "", [], CountingBool(True), CountingBool(False)]
)
def test_cookie_name_is_prefix_and_serial_number_hash(
    simulator: Simulator, module: ModuleType, https: object
) -> None:
    simulator.serial_number = b"SN0123456789"
    simulator.set_reply("__get_aps_hash", 4294967295)
    name = "APSCOOKIE_4294967295" if https else "APCOOKIE_4294967295"
    for calls in (1, 2):
        simulator.clear_calls()
        result = module.get_cookie_name(https)
        assert (type(result), result) == (str, name)
        assert texts(simulator) == [("__get_aps_hash", b"SN0123456789")]
        if isinstance(https, CountingBool):
            assert https.bool_calls == calls + 1  # with the one above


def test_cookie_name_truth_error_propagates(simulator: Simulator, module: ModuleType) -> None:
    error = LookupError("no truth")
    assert fails(LookupError, module.get_cookie_name, CountingBool(error)) is error
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
    patch.delete("_CHARSET")
    assert module.get_cookie_name(https) == "P_H"
    assert events == [
        ("text_", (prefix, "utf-8"), {}),
        ("serial", (), {}),
        ("hash", (serial,), {}),
        ("format", "P", ""),
        ("format", "H", ""),
    ]


def test_cookie_name_decodes_new_prefix_each_time(module: ModuleType, patch: Patch) -> None:
    text_ = Recorder(lambda value, encoding: value.decode(encoding))
    patch("text_", text_)
    patch("_CHARSET", "utf-16")
    assert module.get_cookie_name(True) == module.get_cookie_name(True)
    (first, encoding), (second, _) = text_.positional
    assert (type(first), first, encoding) == (bytes, second, "utf-8")
    assert first is not second


def test_cookie_name_looks_up_text_before_truth_test(module: ModuleType, patch: Patch) -> None:
    before = Recorder(lambda value, encoding: "before")

    class Rebinds:
        def __bool__(self) -> bool:
            patch("text_", lambda value, encoding: "after")
            return True

    patch("text_", before)
    assert module.get_cookie_name(Rebinds()) == "before_0"
    assert before.positional == [(b"APSCOOKIE", "utf-8")]


def test_cookie_name_looks_up_hash_after_prefix(module: ModuleType, patch: Patch) -> None:
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


NAMES = ["text_", "aps_unsigned_int_hash", "serial_number_ascii"]  # in order of their lookup


@pytest.mark.parametrize("first", NAMES)
def test_cookie_name_reports_first_missing_global(
    module: ModuleType, patch: Patch, first: str
) -> None:
    for name in NAMES[NAMES.index(first) :]:
        patch.delete(name)
    error = fails(NameError, module.get_cookie_name, True)
    assert str(error) == f"name '{first}' is not defined"


@pytest.mark.parametrize("name", NAMES)
def test_cookie_name_call_error_propagates(module: ModuleType, patch: Patch, name: str) -> None:
    error = LookupError("not now")
    patch(name, raiser(error))
    assert fails(LookupError, module.get_cookie_name, True) is error


@pytest.mark.parametrize("serial", [None, "SN", bytearray(b"SN")], ids=repr)
def test_cookie_name_serial_number_must_be_bytes(
    simulator: Simulator, module: ModuleType, patch: Patch, serial: object
) -> None:
    patch("serial_number_ascii", lambda: serial)
    error = fails(TypeError, module.get_cookie_name, True)
    assert str(error) == (
        "expected bytes, NoneType found"
        if serial is None
        else wrong_type_message("characters", "bytes", serial)
    )
    hash_entry, name_entry = entry(error, "aps_unsigned_int_hash"), entry(error, "get_cookie_name")
    assert hash_entry.line < name_entry.first_line
    assert simulator.call_log == []


# encrypt_cookie and decrypt_cookie


@pytest.mark.parametrize(
    "plain, passed, wrapped, result",
    [
        (b"", b"", b"", b""),
        (b"value", b"value", b"<value>", b"<value>"),
        (b"\xff\x01", b"\xff\x01", b"\x80", b"\x80"),
        (b"val\0ue", b"val", b"ab\0cd", b"ab"),
        (b"", b"", b"x" * 5000, b"x" * 5000),
    ],
    ids=["empty", "text", "any byte", "up to first NUL", "long"],
)
def test_encrypt_returns_wrapped_value(
    simulator: Simulator,
    module: ModuleType,
    plain: bytes,
    passed: bytes,
    wrapped: bytes,
    result: bytes,
) -> None:
    simulator.set_reply("cookieval_wrap", wrapped)
    encrypted = module.encrypt_cookie(plain)
    assert (type(encrypted), encrypted) == (bytes, result)
    assert texts(simulator) == [("cookieval_wrap", passed)]
    assert simulator.live_objects.text_buffers == 0


@pytest.mark.parametrize(
    "encrypted, copied, unwrapped, result",
    [
        (b"", b"", b"", b""),
        (b"value", b"value", b"VAL", b"VAL"),
        (b"value", b"value", b"", b""),
        (b"\xff\x01", b"\xff\x01", b"\x80", b"\x80"),
        (b"val\0ue", b"val", b"V", b"V"),
        (b"cookie", b"cookie", b"ab\0cd", b"ab"),
    ],
    ids=["empty", "text", "to empty", "any byte", "up to first NUL", "result up to first NUL"],
)
def test_decrypt_unwraps_copy_of_value(
    simulator: Simulator,
    module: ModuleType,
    encrypted: bytes,
    copied: bytes,
    unwrapped: bytes,
    result: bytes,
) -> None:
    simulator.set_reply("cookieval_unwrap", lambda text: unwrapped)
    before = bytes(bytearray(encrypted))
    decrypted = module.decrypt_cookie(encrypted)
    assert (type(decrypted), decrypted) == (bytes, result)
    assert texts(simulator) == [("cookieval_unwrap", copied)]
    assert encrypted == before, "the caller's bytes are not the working buffer"


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


def test_cookie_name_needs_no_serial_number_without_prefix(
    module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    serial_number = Recorder()
    monkeypatch.setattr(module, "serial_number_ascii", serial_number)
    monkeypatch.setattr(module, "text_", raiser(Failure()))
    fails(Failure, module.get_cookie_name, True)
    assert serial_number.calls == []


@pytest.mark.workstation_only("no bytes object is that long with 32-bit sizes")
def test_decrypt_oversized_value_raises_before_allocation(
    simulator: Simulator, module: ModuleType
) -> None:
    encrypted = bytes(2**31 - 1)  # the pages are never touched
    error, _kept, peak = traced(lambda: fails(OverflowError, module.decrypt_cookie, encrypted))
    assert str(error) == "value too large to convert to int"
    assert entry(error, "decrypt_cookie").line == 48
    assert peak < 1_000_000
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


# Allocation failures, in a new process: the interpreter's allocators fail one request.

LOG_TEXT = "Could not allocate memory for decreypt_cookie decrypted"


class Exhausted(NamedTuple):
    """A call in which the allocation number `failing` fails, after a statement, and its end."""

    function: str
    failing: int
    error: str
    arguments: tuple[str, ...] = ()
    called: tuple[str, ...] = ()
    logs: bool = False
    leaked_buffers: int = 0
    statement: str = "pass"


def decrypt(statement: str, error: str, argument: str, logs: bool = True) -> Exhausted:
    """A call without memory for the working buffer: nothing is copied or unwrapped."""
    return Exhausted("decrypt_cookie", 0, error, (argument,), logs=logs, statement=statement)


EXHAUSTED = {
    # without memory for the result
    "new_cookie_id": Exhausted("new_cookie_id", 0, "MemoryError", (), ("aps_get_new_cookie_id",)),
    "encrypt_cookie": Exhausted(
        "encrypt_cookie", 1, "MemoryError", (), ("cookieval_wrap",), leaked_buffers=1
    ),
    "decrypt_cookie": Exhausted("decrypt_cookie", 1, "MemoryError", (), ("cookieval_unwrap",)),
    # without memory for the working buffer
    "working buffer": decrypt("pass", "CFunctionError", "PyMem_Malloc"),
    "no logger": decrypt(
        "del module._logger", "NameError", "name '_logger' is not defined", logs=False
    ),
    "logger without error": decrypt(
        "del log.error",
        "AttributeError",
        "'RecordingLogger' object has no attribute 'error'",
        logs=False,
    ),
    "no exception class": decrypt(
        "del module.CFunctionError", "NameError", "name 'CFunctionError' is not defined"
    ),
    "failing log": decrypt("log.error.side_effect = raiser(ValueError('x'))", "ValueError", "x"),
    "failing exception class": decrypt(
        "module.CFunctionError = lambda text: raiser(LookupError(text + '!'))()",
        "LookupError",
        "PyMem_Malloc!",
    ),
    "exception class rebound while logging": decrypt(
        "Late = type('Late', (Exception,), {})\n"
        "log.error.side_effect = lambda text: setattr(module, 'CFunctionError', Late)",
        "Late",
        "PyMem_Malloc",
    ),
}


def fail_allocations(cases: dict[str, list[Any]]) -> dict[str, dict[str, Any]]:
    """Make each call while its allocation fails; return its error, log, native calls and leaks."""
    import _testcapi

    from tests.support.assertions import traceback_entries
    from tests.support.doubles import RecordingLogger, raiser
    from veldarin_simulator import Simulator

    replies = {
        "cookieval_wrap": b"wrapped",
        "cookieval_unwrap": b"plain",
        "aps_get_new_cookie_id": 4294967295,
    }

    def ending(function: str, failing: int, statement: str) -> dict[str, Any]:
        with Simulator(live=False) as simulator:
            module = simulator.module
            for service, reply in replies.items():
                simulator.set_fixed_reply(service, reply)
            call = getattr(module, function)
            values = [] if function == "new_cookie_id" else [b"value"]
            log = RecordingLogger()
            notes = log.error
            names = dict(vars(module))
            module.__dict__["_logger"] = log
            exec(statement, {"module": module, "log": log, "raiser": raiser})
            buffers = simulator.live_objects.text_buffers
            error: Any = None
            _testcapi.set_nomemory(failing, failing + 1)
            try:
                call(*values)
            except Exception as raised:
                error = raised
            finally:
                _testcapi.remove_mem_hooks()
            entries = traceback_entries(error.__traceback__)
            result = {
                "error": type(error).__name__,
                "is module's": type(error) is module.__dict__.get("CFunctionError"),
                "arguments": [str(argument) for argument in error.args],
                "entries": [entry.function for entry in entries],
                "lines": [entry.line for entry in entries],
                "logged": notes.calls,
                "called": [service for service in replies if simulator.fixed_reply_calls(service)],
                "leaked buffers": simulator.live_objects.text_buffers - buffers,
            }
            vars(module).update(names)
            return result

    return {label: ending(*case) for label, case in cases.items()}


@pytest.fixture(scope="module")
def exhausted() -> dict[str, dict[str, Any]]:
    """How each call of the table ends."""
    cases = {
        label: [case.function, case.failing, case.statement] for label, case in EXHAUSTED.items()
    }
    endings: dict[str, dict[str, Any]] = isolated.value(fail_allocations, cases)
    return endings


@pytest.mark.parametrize("label", EXHAUSTED)
def test_failed_allocation_raises_error(exhausted: dict[str, dict[str, Any]], label: str) -> None:
    case = EXHAUSTED[label]
    found = dict(exhausted[label])
    assert len(found.pop("lines")) == 1
    assert found == {
        "error": case.error,
        "is module's": case.error in {"CFunctionError", "Late"},
        "arguments": list(case.arguments),
        "entries": [case.function],
        "logged": [[[LOG_TEXT], {}]] if case.logs else [],
        "called": list(case.called),
        "leaked buffers": case.leaked_buffers,
    }


def test_each_statement_has_its_traceback_line(exhausted: dict[str, dict[str, Any]]) -> None:
    labels = ["new_cookie_id", "encrypt_cookie", "no logger", "working buffer", "decrypt_cookie"]
    assert [exhausted[label]["lines"] for label in labels] == [[29], [42], [51], [52], [55]]


def leaked_by_decryptions(length: int, times: int, allocations: list[int]) -> list[int]:
    """Bytes of the interpreter's allocator that failing decryptions leak, by failing allocation."""
    import _testcapi
    import tracemalloc

    from veldarin_simulator import Simulator

    with Simulator(live=False) as simulator:
        simulator.set_fixed_reply("cookieval_unwrap", b"plain text")
        simulator.module._logger.disabled = True
        decrypt = simulator.module.decrypt_cookie
        encrypted = b"e" * length

        def fail(allocation: int, count: int) -> int:
            for _ in range(count):
                _testcapi.set_nomemory(allocation, allocation + 1)
                try:
                    decrypt(encrypted)
                except Exception as error:
                    _testcapi.remove_mem_hooks()
                    error.__traceback__ = None
                else:
                    raise AssertionError("memory did not fail")
            return tracemalloc.get_traced_memory()[0]

        tracemalloc.start()
        return [-fail(number, 5) + fail(number, times) for number in allocations]


def test_decrypt_leaks_working_buffer_only_without_result() -> None:
    length = 400  # of a cookie: a large block that is still one request to the allocator
    without_buffer, without_result = isolated.value(leaked_by_decryptions, length, 200, [0, 1])
    buffers = 200 * (length + 1)
    assert without_buffer < 20_000
    assert buffers <= without_result < buffers + 20_000
