"""The command runner: encoding of the command, decoding of the output, and the native buffer, which
is freed on every path."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import pytest

from tests.support.assertions import (
    entry,
    is_increasing,
    line,
    raises_exactly,
    traceback_entries,
    wrong_type_message,
)
from tests.support.doubles import (
    BytesSubclass,
    Failure,
    OwnMethodsStr,
    Recorder,
    StrSubclass,
    raiser,
)
from tests.support.module_patch import Patch
from veldarin_simulator import Simulator

FUNCTION = "get_cli_command_output"


class ByteArray(bytearray):
    """A subclass of bytearray."""


def sent(simulator: Simulator) -> list[bytes | None]:
    """The commands that reached the service, each with a null context."""
    assert all(call.service == "get_cli_cmd_output" for call in simulator.call_log)
    assert all(call.context is None for call in simulator.call_log)
    return [call.text for call in simulator.call_log]


# The command


@pytest.mark.parametrize(
    "command, arrives",
    [
        ("get system arp", b"get system arp"),
        ("", b""),
        (" trailing ", b" trailing "),
        ("show \u00e9\u20ac\U0001f600", b"show \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"),
        ("before\0after", b"before"),
        ("x" * 126, b"x" * 126),
        ("x" * 127, b"x" * 127),
        ("x" * 128, b"x" * 127),
        ("x" * 100_000, b"x" * 127),
        ("x" * 126 + "\u00e9", b"x" * 126 + b"\xc3"),
    ],
)
def test_command_is_encoded_and_cut_to_buffer_size(
    simulator: Simulator, module: ModuleType, command: str, arrives: bytes
) -> None:
    simulator.set_reply("get_cli_cmd_output", "output")
    assert module.get_cli_command_output(command) == "output"
    assert sent(simulator) == [arrives]


def test_each_call_runs_command_again(simulator: Simulator, module: ModuleType) -> None:
    outputs = iter(["first", "second"])
    simulator.set_reply("get_cli_cmd_output", lambda command: next(outputs))
    assert [module.get_cli_command_output("c") for _ in range(2)] == ["first", "second"]
    assert sent(simulator) == [b"c", b"c"]


@pytest.mark.parametrize(
    "command", [b"c", StrSubclass("c"), 5, ["c"], bytearray(b"c")], ids=lambda c: type(c).__name__
)
def test_non_str_command_is_rejected_before_any_call(
    simulator: Simulator, module: ModuleType, patch: Patch, command: object
) -> None:
    encode = Recorder()
    patch("bytes_", encode)
    error = raises_exactly(TypeError, module.get_cli_command_output, command)
    assert str(error) == wrong_type_message("cmd_s", "str", command)
    found = entry(error, FUNCTION)
    assert found.line == found.first_line
    assert encode.calls == []
    assert sent(simulator) == []


def test_none_command_fails_in_encoding(simulator: Simulator, module: ModuleType) -> None:
    error = raises_exactly(TypeError, module.get_cli_command_output, None)
    assert str(error) == "expected bytes, NoneType found"
    assert line(error, FUNCTION)
    assert sent(simulator) == []


@pytest.mark.parametrize("command", ["plain", None])
def test_command_is_encoded_with_charset(
    simulator: Simulator, module: ModuleType, patch: Patch, command: str | None
) -> None:
    character_set = object()
    encode = Recorder(lambda text, encoding: b"encoded")
    patch("bytes_", encode)
    patch("_CHARSET", character_set)
    patch("text_", lambda value, encoding: "text")
    simulator.set_reply("get_cli_cmd_output", "output")
    assert module.get_cli_command_output(command) == "text"
    ((text, encoding),) = encode.positional
    assert text is command
    assert encoding is character_set
    assert sent(simulator) == [b"encoded"]


@pytest.mark.parametrize(
    "encoded",
    [b"encoded", bytearray(b"encoded"), BytesSubclass(b"encoded"), ByteArray(b"encoded")],
    ids=lambda encoded: type(encoded).__name__,
)
def test_encoded_bytes_or_bytearray_is_accepted(
    simulator: Simulator, module: ModuleType, patch: Patch, encoded: bytes
) -> None:
    patch("bytes_", lambda text, encoding: encoded)
    simulator.set_reply("get_cli_cmd_output", "output")
    assert module.get_cli_command_output("command") == "output"
    assert sent(simulator) == [b"encoded"]


@pytest.mark.parametrize("kind", [bytes, bytearray])
def test_encoded_command_is_released_before_native_call(
    simulator: Simulator, module: ModuleType, patch: Patch, kind: type[bytes]
) -> None:
    events: list[object] = []

    class Encoded(kind):  # type: ignore[valid-type, misc]
        def __del__(self) -> None:
            events.append("dropped")

    def reply(command: bytes) -> str:
        events.append(command)
        return "output"

    patch("bytes_", lambda text, encoding: Encoded(b"encoded"))
    simulator.set_reply("get_cli_cmd_output", reply)
    module.get_cli_command_output("command")
    assert events == ["dropped", b"encoded"]


def test_empty_bytearray_is_empty_command(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    patch("bytes_", lambda text, encoding: bytearray())
    simulator.set_reply("get_cli_cmd_output", "output")
    assert module.get_cli_command_output("command") == "output"
    assert sent(simulator) == [b""]


@pytest.mark.parametrize(
    "encoded", ["text", None, 5, memoryview(b"c"), [99]], ids=lambda e: type(e).__name__
)
def test_encoded_non_bytes_raises_type_error(
    simulator: Simulator, module: ModuleType, patch: Patch, encoded: object
) -> None:
    patch("bytes_", lambda text, encoding: encoded)
    error = raises_exactly(TypeError, module.get_cli_command_output, "command")
    assert str(error) == f"expected bytes, {type(encoded).__name__} found"
    assert line(error, FUNCTION)
    assert sent(simulator) == []


def test_unencodable_command_is_not_sent(simulator: Simulator, module: ModuleType) -> None:
    error = raises_exactly(UnicodeEncodeError, module.get_cli_command_output, "\ud800")
    assert line(error, FUNCTION)
    assert sent(simulator) == []


# The output


@pytest.mark.parametrize(
    "output, text",
    [
        ("", ""),
        ("--More--", ""),
        ("a--More--b--More--", "ab"),
        ("a --More-- \r\nb", "a  \r\nb"),
        ("-- More --", "-- More --"),
        ("--more--", "--more--"),
        ("---More---", "--"),
        ("--More", "--More"),
        ("--More--More--", "More--"),
        ("--Mo--More--re--", "--More--"),
        ("--More----More--x--More----", "x--"),
        ("  \t\r\n untouched \r\n\n ", "  \t\r\n untouched \r\n\n "),
        ("\u00e9--More--\u20ac--More--\U0001f600", "\u00e9\u20ac\U0001f600"),
        (b"ends\0here", "ends"),
        ("x" * 100_000 + "--More--" + "y" * 100_000, "x" * 100_000 + "y" * 100_000),
    ],
)
def test_output_is_returned_without_pager_prompts(
    simulator: Simulator, module: ModuleType, output: str | bytes, text: str
) -> None:
    simulator.set_reply("get_cli_cmd_output", output)
    result = module.get_cli_command_output("command")
    assert (type(result), result) == (str, text)
    assert simulator.live_objects.text_buffers == 0


def test_decoder_gets_bytes_up_to_nul_and_charset(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    character_set = object()
    decode = Recorder(lambda value, encoding: "a--More--b")
    patch("bytes_", lambda text, encoding: b"command")
    patch("text_", decode)
    patch("_CHARSET", character_set)
    simulator.set_reply("get_cli_cmd_output", b"\xffout\0put")
    assert module.get_cli_command_output("command") == "ab"
    ((value, encoding),) = decode.positional
    assert (type(value), value) == (bytes, b"\xffout")
    assert encoding is character_set


def test_charset_is_looked_up_for_each_conversion(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    def reply(command: bytes) -> bytes:
        patch("_CHARSET", "utf-16-le")
        return b"o"  # and its NUL ends the text

    decode = Recorder(lambda value, encoding: encoding)
    patch("_CHARSET", "latin-1")
    patch("text_", decode)
    simulator.set_reply("get_cli_cmd_output", reply)
    assert module.get_cli_command_output("\u00e9") == "utf-16-le"
    assert sent(simulator) == [b"\xe9"]


def test_str_subclass_output_is_accepted(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    simulator.set_reply("get_cli_cmd_output", "output")
    for text, expected in (("a--More--b", "ab"), ("plain", "plain")):
        patch("text_", lambda value, encoding, text=text: StrSubclass(text))
        result = module.get_cli_command_output("command")
        assert (type(result), result) == (str, expected)


@pytest.mark.parametrize(
    "decoded, kind, text",
    [
        (None, AttributeError, "'NoneType' object has no attribute 'replace'"),
        (5, AttributeError, "'int' object has no attribute 'replace'"),
        ([], AttributeError, "'list' object has no attribute 'replace'"),
        (b"bytes", TypeError, "a bytes-like object is required, not 'str'"),
        (bytearray(b"bytes"), TypeError, "a bytes-like object is required, not 'str'"),
    ],
)
def test_non_str_output_raises_and_frees_buffer(
    simulator: Simulator,
    module: ModuleType,
    patch: Patch,
    decoded: object,
    kind: type[Exception],
    text: str,
) -> None:
    patch("text_", lambda value, encoding: decoded)
    simulator.set_reply("get_cli_cmd_output", "output")
    error = raises_exactly(kind, module.get_cli_command_output, "command")
    assert str(error) == text
    assert line(error, FUNCTION)
    assert simulator.live_objects.text_buffers == 0


def test_undecodable_output_raises_and_frees_buffer(
    simulator: Simulator, module: ModuleType
) -> None:
    simulator.set_reply("get_cli_cmd_output", b"\xff")
    error = raises_exactly(UnicodeDecodeError, module.get_cli_command_output, "command")
    assert (error.encoding, error.object) == ("utf-8", b"\xff")
    assert line(error, FUNCTION)
    assert simulator.live_objects.text_buffers == 0


def test_buffer_is_freed_after_decoding(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    alive: list[int] = []

    def decode(value: bytes, encoding: str) -> str:
        alive.append(simulator.live_objects.text_buffers)
        return "text"

    patch("text_", decode)
    simulator.set_reply("get_cli_cmd_output", "output")
    module.get_cli_command_output("command")
    assert alive == [1]
    assert simulator.live_objects.text_buffers == 0


# No output


def test_null_output_raises_c_function_error(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    decode = Recorder()
    patch("text_", decode)
    simulator.set_reply("get_cli_cmd_output", None)
    error = raises_exactly(module.CFunctionError, module.get_cli_command_output, "command")
    assert error.args == ("get_cli_command_output's result is null.",)
    assert line(error, FUNCTION)
    assert decode.calls == []
    assert sent(simulator) == [b"command"]


def test_error_class_is_looked_up_at_failure(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    class Other(Exception):
        pass

    def reply(command: bytes) -> None:
        patch("CFunctionError", Other)

    simulator.set_reply("get_cli_cmd_output", reply)
    error = raises_exactly(Other, module.get_cli_command_output, "command")
    assert error.args == ("get_cli_command_output's result is null.",)


class ReturnedFailure(Exception):
    """An exception that a call returns, as a class or as an instance."""


class StoppingFailure(KeyboardInterrupt):
    """The same, not derived from Exception."""


@pytest.mark.parametrize("kind", [ReturnedFailure, StoppingFailure])
@pytest.mark.parametrize("instance", [True, False], ids=["instance", "class"])
def test_returned_exception_is_raised_as_by_raise(
    simulator: Simulator,
    module: ModuleType,
    patch: Patch,
    kind: type[BaseException],
    instance: bool,
) -> None:
    returned = kind("by the call") if instance else kind
    make = Recorder(lambda message: returned)
    patch("CFunctionError", make)
    simulator.set_reply("get_cli_cmd_output", None)
    error = raises_exactly(kind, module.get_cli_command_output, "command")
    assert error.args == (("by the call",) if instance else ())
    assert (error is returned) == instance
    assert make.positional == [("get_cli_command_output's result is null.",)]
    assert line(error, FUNCTION)


@pytest.mark.parametrize("returned", [None, "text", 5, object], ids=repr)
def test_returned_non_exception_raises_type_error(
    simulator: Simulator, module: ModuleType, patch: Patch, returned: object
) -> None:
    patch("CFunctionError", lambda message: returned)
    simulator.set_reply("get_cli_cmd_output", None)
    error = raises_exactly(TypeError, module.get_cli_command_output, "command")
    assert str(error) == "exceptions must derive from BaseException"
    assert line(error, FUNCTION)


def test_returned_class_that_fails_raises_its_own_error(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    error = Failure()

    class Unmakable(Exception):
        def __init__(self) -> None:
            raise error

    patch("CFunctionError", lambda message: Unmakable)
    simulator.set_reply("get_cli_cmd_output", None)
    assert raises_exactly(Failure, module.get_cli_command_output, "command") is error
    assert line(error, FUNCTION)


def test_returned_class_without_instances_raises_type_error(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    class Odd(Exception):
        def __new__(cls) -> Any:
            return 5

    patch("CFunctionError", lambda message: Odd)
    simulator.set_reply("get_cli_cmd_output", None)
    error = raises_exactly(TypeError, module.get_cli_command_output, "command")
    assert str(error) == (
        f"calling {Odd!r} should have returned an instance of BaseException, not <class 'int'>"
    )
    assert line(error, FUNCTION)


def test_failing_error_class_raises_its_own_error(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    error = Failure()
    patch("CFunctionError", raiser(error))
    simulator.set_reply("get_cli_cmd_output", None)
    assert raises_exactly(Failure, module.get_cli_command_output, "command") is error
    assert line(error, FUNCTION)


# Globals and lines


@pytest.mark.parametrize(
    "name, output, commands",
    [
        ("bytes_", "output", []),
        ("_CHARSET", "output", []),
        ("text_", "output", [b"command"]),
        ("CFunctionError", None, [b"command"]),
    ],
)
def test_missing_global_raises_name_error(
    simulator: Simulator,
    module: ModuleType,
    patch: Patch,
    name: str,
    output: str | None,
    commands: list[bytes],
) -> None:
    patch.delete(name)
    simulator.set_reply("get_cli_cmd_output", output)
    error = raises_exactly(NameError, module.get_cli_command_output, "command")
    assert str(error) == f"name '{name}' is not defined"
    assert line(error, FUNCTION)
    assert sent(simulator) == commands
    assert simulator.live_objects.text_buffers == 0


def test_charset_missing_at_decoding_frees_buffer(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    def reply(command: bytes) -> str:
        patch.delete("_CHARSET")
        return "output"

    simulator.set_reply("get_cli_cmd_output", reply)
    error = raises_exactly(NameError, module.get_cli_command_output, "command")
    assert str(error) == "name '_CHARSET' is not defined"
    assert simulator.live_objects.text_buffers == 0


@pytest.mark.parametrize("name, commands", [("bytes_", []), ("text_", [b"command"])])
def test_conversion_error_propagates(
    simulator: Simulator, module: ModuleType, patch: Patch, name: str, commands: list[bytes]
) -> None:
    error = Failure()
    patch(name, raiser(error))
    simulator.set_reply("get_cli_cmd_output", "output")
    assert raises_exactly(Failure, module.get_cli_command_output, "command") is error
    (found,) = traceback_entries(error.__traceback__)
    assert found.function == FUNCTION
    assert sent(simulator) == commands
    assert simulator.live_objects.text_buffers == 0


def test_traceback_lines_increase_with_statements(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    def failing_line(name: str, output: str | None) -> Any:
        error = Failure()
        simulator.set_reply("get_cli_cmd_output", output)
        with monkeypatch.context() as patch:
            patch.setattr(module, name, raiser(error))
            raises_exactly(Failure, module.get_cli_command_output, "command")
        return line(error, FUNCTION)

    refused = raises_exactly(TypeError, module.get_cli_command_output, 5)
    lines = [
        line(refused, FUNCTION),
        failing_line("bytes_", "output"),
        failing_line("CFunctionError", None),
        failing_line("text_", "output"),
    ]
    assert is_increasing([250, *lines, 352])


class UnusedLogger:
    """A logger that records the lookup of any of its attributes."""

    def __init__(self) -> None:
        self.looked_up: list[str] = []

    def __getattr__(self, name: str) -> Any:
        self.looked_up.append(name)
        return lambda *args, **kwargs: None


@pytest.mark.parametrize(
    "command, output, kind",
    [
        ("command", "a--More--b", None),
        ("command", None, "CFunctionError"),
        ("command", b"\xff", "UnicodeDecodeError"),
        ("\ud800", "output", "UnicodeEncodeError"),
        (None, "output", "TypeError"),
        (5, "output", "TypeError"),
    ],
)
def test_runner_logs_nothing(
    simulator: Simulator,
    module: ModuleType,
    patch: Patch,
    caplog: pytest.LogCaptureFixture,
    command: Any,
    output: str | bytes | None,
    kind: str | None,
) -> None:
    logger = UnusedLogger()
    patch("_logger", logger)
    simulator.set_reply("get_cli_cmd_output", output)
    raised = None
    with caplog.at_level(0):
        try:
            module.get_cli_command_output(command)
        except Exception as error:
            raised = type(error).__name__
    assert raised == kind
    assert logger.looked_up == []
    assert caplog.records == []


def test_command_output_calls_replace_of_str_subclass(
    simulator: Simulator, module: ModuleType, patch: Patch
) -> None:
    called: list[str] = []
    patch("text_", lambda value, encoding: OwnMethodsStr("text", called))
    simulator.set_reply("get_cli_cmd_output", "output")
    assert module.get_cli_command_output("command") == "replaced"
    assert called == ["replace"]
