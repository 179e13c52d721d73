"""The command runner: the command on its way to the host, the text on its way back, and the native
buffer, which is freed whatever happens."""

from __future__ import annotations

import copy
from types import ModuleType
from typing import Any

import pytest

from tests.support.assertions import (
    Recorder,
    ascending,
    entry,
    failure,
    line,
    raising,
    taken_apart,
    traceback_entries,
    wrong_type,
)
from tests.support.fake_cli import CommandLine
from veldarin_simulator import Simulator

FUNCTION = "get_cli_command_output"


class Text(str):
    """A subclass of str."""


class Bytes(bytes):
    """A subclass of bytes."""


class ByteArray(bytearray):
    """A subclass of bytearray."""


class Failed(Exception):
    """Only the tests raise it."""


def sent(simulator: Simulator) -> list[bytes | None]:
    """The commands that reached the host, each with a null first pointer."""
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
def test_the_command_reaches_the_host_encoded_and_cut_to_its_buffer(
    simulator: Simulator, module: ModuleType, command: str, arrives: bytes
) -> None:
    simulator.set_reply("get_cli_cmd_output", "output")
    assert module.get_cli_command_output(command) == "output"
    assert sent(simulator) == [arrives]


def test_each_call_runs_the_command_anew(simulator: Simulator, module: ModuleType) -> None:
    outputs = iter(["first", "second"])
    simulator.set_reply("get_cli_cmd_output", lambda command: next(outputs))
    assert [module.get_cli_command_output("c") for _ in range(2)] == ["first", "second"]
    assert sent(simulator) == [b"c", b"c"]


@pytest.mark.parametrize(
    "command", [b"c", Text("c"), 5, ["c"], bytearray(b"c")], ids=lambda c: type(c).__name__
)
def test_a_command_that_is_not_exactly_text_is_refused_before_anything_is_called(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, command: object
) -> None:
    encode = Recorder()
    monkeypatch.setattr(module, "bytes_", encode)
    error = failure(TypeError, module.get_cli_command_output, command)
    assert str(error) == wrong_type("cmd_s", "str", command)
    found = entry(error, FUNCTION)
    assert found.line == found.first_line
    assert encode.calls == []
    assert sent(simulator) == []


def test_no_command_passes_the_type_test_and_fails_in_the_encoding(
    simulator: Simulator, module: ModuleType
) -> None:
    error = failure(TypeError, module.get_cli_command_output, None)
    assert str(error) == "expected bytes, NoneType found"
    assert line(error, FUNCTION)
    assert sent(simulator) == []


@pytest.mark.parametrize(
    "command",
    ["plain", None],
)
def test_the_encoding_is_asked_for_with_the_character_set(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, command: str | None
) -> None:
    character_set = object()
    encode = Recorder(lambda text, encoding: b"encoded")
    monkeypatch.setattr(module, "bytes_", encode)
    monkeypatch.setattr(module, "_CHARSET", character_set)
    monkeypatch.setattr(module, "text_", lambda value, encoding: "text")
    simulator.set_reply("get_cli_cmd_output", "output")
    assert module.get_cli_command_output(command) == "text"
    ((text, encoding),) = encode.positional
    assert text is command
    assert encoding is character_set
    assert sent(simulator) == [b"encoded"]


@pytest.mark.parametrize(
    "encoded",
    [b"encoded", bytearray(b"encoded"), Bytes(b"encoded"), ByteArray(b"encoded")],
    ids=lambda encoded: type(encoded).__name__,
)
def test_bytes_and_bytearrays_of_any_class_are_a_command(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, encoded: bytes
) -> None:
    monkeypatch.setattr(module, "bytes_", lambda text, encoding: encoded)
    simulator.set_reply("get_cli_cmd_output", "output")
    assert module.get_cli_command_output("command") == "output"
    assert sent(simulator) == [b"encoded"]


@pytest.mark.parametrize("kind", [bytes, bytearray])
def test_encoded_command_is_dropped_before_the_native_call(
    simulator: Simulator,
    module: ModuleType,
    monkeypatch: pytest.MonkeyPatch,
    kind: type[bytes],
) -> None:
    events: list[object] = []

    class Encoded(kind):  # type: ignore[valid-type, misc]
        def __del__(self) -> None:
            events.append("dropped")

    def answer(command: bytes) -> str:
        events.append(command)
        return "output"

    monkeypatch.setattr(module, "bytes_", lambda text, encoding: Encoded(b"encoded"))
    simulator.set_reply("get_cli_cmd_output", answer)
    module.get_cli_command_output("command")
    assert events == ["dropped", b"encoded"]


def test_an_empty_bytearray_is_an_empty_command(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(module, "bytes_", lambda text, encoding: bytearray())
    simulator.set_reply("get_cli_cmd_output", "output")
    assert module.get_cli_command_output("command") == "output"
    assert sent(simulator) == [b""]


@pytest.mark.parametrize(
    "encoded", ["text", None, 5, memoryview(b"c"), [99]], ids=lambda e: type(e).__name__
)
def test_an_encoding_into_anything_else_is_refused(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, encoded: object
) -> None:
    monkeypatch.setattr(module, "bytes_", lambda text, encoding: encoded)
    error = failure(TypeError, module.get_cli_command_output, "command")
    assert str(error) == f"expected bytes, {type(encoded).__name__} found"
    assert line(error, FUNCTION)
    assert sent(simulator) == []


def test_text_that_has_no_encoding_is_not_sent(simulator: Simulator, module: ModuleType) -> None:
    error = failure(UnicodeEncodeError, module.get_cli_command_output, "\ud800")
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
def test_the_output_is_returned_without_pager_prompts_and_otherwise_untouched(
    simulator: Simulator, module: ModuleType, output: str | bytes, text: str
) -> None:
    simulator.set_reply("get_cli_cmd_output", output)
    result = module.get_cli_command_output("command")
    assert (type(result), result) == (str, text)
    assert simulator.live_objects.text_buffers == 0


def test_the_decoding_gets_the_bytes_up_to_their_nul_and_the_character_set(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    character_set = object()
    decode = Recorder(lambda value, encoding: "a--More--b")
    monkeypatch.setattr(module, "bytes_", lambda text, encoding: b"command")
    monkeypatch.setattr(module, "text_", decode)
    monkeypatch.setattr(module, "_CHARSET", character_set)
    simulator.set_reply("get_cli_cmd_output", b"\xffout\0put")
    assert module.get_cli_command_output("command") == "ab"
    ((value, encoding),) = decode.positional
    assert (type(value), value) == (bytes, b"\xffout")
    assert encoding is character_set


def test_the_character_set_is_looked_up_for_each_conversion(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    def answer(command: bytes) -> bytes:
        monkeypatch.setattr(module, "_CHARSET", "utf-16-le")
        return b"o"  # and its NUL ends the text

    decode = Recorder(lambda value, encoding: encoding)
    monkeypatch.setattr(module, "_CHARSET", "latin-1")
    monkeypatch.setattr(module, "text_", decode)
    simulator.set_reply("get_cli_cmd_output", answer)
    assert module.get_cli_command_output("\u00e9") == "utf-16-le"
    assert sent(simulator) == [b"\xe9"]


def test_a_subclass_of_text_is_text(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    simulator.set_reply("get_cli_cmd_output", "output")
    for text, expected in (("a--More--b", "ab"), ("plain", "plain")):
        monkeypatch.setattr(module, "text_", lambda value, encoding, text=text: Text(text))
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
def test_what_is_no_text_raises_the_interpreters_own_error_and_the_buffer_is_freed(
    simulator: Simulator,
    module: ModuleType,
    monkeypatch: pytest.MonkeyPatch,
    decoded: object,
    kind: type[Exception],
    text: str,
) -> None:
    monkeypatch.setattr(module, "text_", lambda value, encoding: decoded)
    simulator.set_reply("get_cli_cmd_output", "output")
    error = failure(kind, module.get_cli_command_output, "command")
    assert str(error) == text
    assert line(error, FUNCTION)
    assert simulator.live_objects.text_buffers == 0


def test_output_that_cannot_be_decoded_is_an_error_and_the_buffer_is_freed(
    simulator: Simulator, module: ModuleType
) -> None:
    simulator.set_reply("get_cli_cmd_output", b"\xff")
    error = failure(UnicodeDecodeError, module.get_cli_command_output, "command")
    assert (error.encoding, error.object) == ("utf-8", b"\xff")
    assert line(error, FUNCTION)
    assert simulator.live_objects.text_buffers == 0


def test_the_buffer_lives_until_the_text_is_decoded_and_not_beyond_the_call(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    alive: list[int] = []

    def decode(value: bytes, encoding: str) -> str:
        alive.append(simulator.live_objects.text_buffers)
        return "text"

    monkeypatch.setattr(module, "text_", decode)
    simulator.set_reply("get_cli_cmd_output", "output")
    module.get_cli_command_output("command")
    assert alive == [1]
    assert simulator.live_objects.text_buffers == 0


# No output


def test_without_output_the_native_failure_is_raised(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    decode = Recorder()
    monkeypatch.setattr(module, "text_", decode)
    simulator.set_reply("get_cli_cmd_output", None)
    error = failure(module.CFunctionError, module.get_cli_command_output, "command")
    assert error.args == ("get_cli_command_output's result is null.",)
    assert line(error, FUNCTION)
    assert decode.calls == []
    assert sent(simulator) == [b"command"]


def test_the_native_failure_is_the_class_that_the_global_names_then(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    class Other(Exception):
        pass

    def answer(command: bytes) -> None:
        monkeypatch.setattr(module, "CFunctionError", Other)

    simulator.set_reply("get_cli_cmd_output", answer)
    error = failure(Other, module.get_cli_command_output, "command")
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
    monkeypatch: pytest.MonkeyPatch,
    kind: type[BaseException],
    instance: bool,
) -> None:
    returned = kind("by the call") if instance else kind
    make = Recorder(lambda message: returned)
    monkeypatch.setattr(module, "CFunctionError", make)
    simulator.set_reply("get_cli_cmd_output", None)
    error = failure(kind, module.get_cli_command_output, "command")
    assert error.args == (("by the call",) if instance else ())
    assert (error is returned) == instance
    assert make.positional == [("get_cli_command_output's result is null.",)]
    assert line(error, FUNCTION)


@pytest.mark.parametrize("returned", [None, "text", 5, object], ids=repr)
def test_returned_non_exception_raises_type_error(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, returned: object
) -> None:
    monkeypatch.setattr(module, "CFunctionError", lambda message: returned)
    simulator.set_reply("get_cli_cmd_output", None)
    error = failure(TypeError, module.get_cli_command_output, "command")
    assert str(error) == "exceptions must derive from BaseException"
    assert line(error, FUNCTION)


def test_returned_class_that_fails_raises_its_own_error(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    error = Failed()

    class Unmakable(Exception):
        def __init__(self) -> None:
            raise error

    monkeypatch.setattr(module, "CFunctionError", lambda message: Unmakable)
    simulator.set_reply("get_cli_cmd_output", None)
    assert failure(Failed, module.get_cli_command_output, "command") is error
    assert line(error, FUNCTION)


def test_returned_class_without_instances_raises_type_error(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    class Odd(Exception):
        def __new__(cls) -> Any:
            return 5

    monkeypatch.setattr(module, "CFunctionError", lambda message: Odd)
    simulator.set_reply("get_cli_cmd_output", None)
    error = failure(TypeError, module.get_cli_command_output, "command")
    assert str(error) == (
        f"calling {Odd!r} should have returned an instance of BaseException, not <class 'int'>"
    )
    assert line(error, FUNCTION)


def test_a_native_failure_that_cannot_be_made_is_told_instead(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    error = Failed()
    monkeypatch.setattr(module, "CFunctionError", raising(error))
    simulator.set_reply("get_cli_cmd_output", None)
    assert failure(Failed, module.get_cli_command_output, "command") is error
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
def test_a_missing_global_is_a_name_error_when_it_is_needed(
    simulator: Simulator,
    module: ModuleType,
    monkeypatch: pytest.MonkeyPatch,
    name: str,
    output: str | None,
    commands: list[bytes],
) -> None:
    monkeypatch.delattr(module, name)
    simulator.set_reply("get_cli_cmd_output", output)
    error = failure(NameError, module.get_cli_command_output, "command")
    assert str(error) == f"name '{name}' is not defined"
    assert line(error, FUNCTION)
    assert sent(simulator) == commands
    assert simulator.live_objects.text_buffers == 0


def test_a_character_set_that_goes_missing_is_a_name_error_and_the_buffer_is_freed(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    def answer(command: bytes) -> str:
        monkeypatch.delattr(module, "_CHARSET")
        return "output"

    simulator.set_reply("get_cli_cmd_output", answer)
    error = failure(NameError, module.get_cli_command_output, "command")
    assert str(error) == "name '_CHARSET' is not defined"
    assert simulator.live_objects.text_buffers == 0


@pytest.mark.parametrize("name, commands", [("bytes_", []), ("text_", [b"command"])])
def test_a_failing_conversion_ends_the_call_unchanged(
    simulator: Simulator,
    module: ModuleType,
    monkeypatch: pytest.MonkeyPatch,
    name: str,
    commands: list[bytes],
) -> None:
    error = Failed()
    monkeypatch.setattr(module, name, raising(error))
    simulator.set_reply("get_cli_cmd_output", "output")
    assert failure(Failed, module.get_cli_command_output, "command") is error
    (found,) = traceback_entries(error.__traceback__)
    assert found.function == FUNCTION
    assert sent(simulator) == commands
    assert simulator.live_objects.text_buffers == 0


def test_lines_ascend_with_the_statements(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    def failing_line(name: str, output: str | None) -> Any:
        error = Failed()
        simulator.set_reply("get_cli_cmd_output", output)
        with monkeypatch.context() as patch:
            patch.setattr(module, name, raising(error))
            failure(Failed, module.get_cli_command_output, "command")
        return line(error, FUNCTION)

    refused = failure(TypeError, module.get_cli_command_output, 5)
    lines = [
        line(refused, FUNCTION),
        failing_line("bytes_", "output"),
        failing_line("CFunctionError", None),
        failing_line("text_", "output"),
    ]
    assert ascending([250, *lines, 352])


class UnusedLogger:
    """A logger that records the look-up of any of its attributes."""

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
def test_success_and_every_failure_log_nothing(
    simulator: Simulator,
    module: ModuleType,
    monkeypatch: pytest.MonkeyPatch,
    caplog: pytest.LogCaptureFixture,
    command: Any,
    output: str | bytes | None,
    kind: str | None,
) -> None:
    logger = UnusedLogger()
    monkeypatch.setattr(module, "_logger", logger)
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


# What the parsers do with it


@pytest.mark.parametrize(
    "function, arguments, output",
    [
        ("get_bfd_neighbor", ("command", {}), "echo\npeer a b c"),
        ("get_routing_table_result", ("address",), "Routing a b c\na,b c,d e,f\na b c"),
        ("get_system_arp_result", (), "Address"),
    ],
)
def test_parsers_look_names_up_as_their_statement_reads(
    cli: CommandLine, function: str, arguments: tuple[object, ...], output: str
) -> None:
    """text_(get_cli_command_output(command), _CHARSET): first text_, last _CHARSET."""

    def run(command: str) -> str:
        cli.rebind("text_", raising(AssertionError("looked up too late")))
        cli.rebind("_CHARSET", "rebound while the command ran")
        return output

    decode = Recorder(lambda value, encoding: value)
    cli.rebind("text_", decode)
    cli.run.answer = run
    getattr(cli.parser, function)(*arguments)
    assert decode.positional == [(output, "rebound while the command ran")]


class OwnMethods(str):
    """Text whose methods are its own."""

    called: list[str]

    def __new__(cls, text: str, called: list[str]) -> OwnMethods:
        made = super().__new__(cls, text)
        made.called = called
        return made

    def split(self, *args: Any) -> list[str]:
        self.called.append("split")
        return []

    def replace(self, *args: Any) -> str:
        self.called.append("replace")
        return "replaced"


@pytest.mark.parametrize(
    "function, arguments, output",
    [
        ("get_bfd_neighbor", ("command", {}), "echo\npeer a b c\n\tk: v"),
        ("get_routing_table_result", ("address",), "Routing a b c\r\na,b c,d e,f\na b c"),
        ("get_system_arp_result", (), "Address\na b c d"),
    ],
)
def test_parsers_read_the_characters_of_a_str_subclass(
    native_cli: CommandLine, function: str, arguments: tuple[object, ...], output: str
) -> None:
    called: list[str] = []
    parse = getattr(native_cli.parser, function)
    native_cli.prints(output)
    expected = parse(*copy.deepcopy(arguments))
    assert expected
    native_cli.rebind("text_", lambda value, encoding: OwnMethods(output, called))
    assert taken_apart(parse(*copy.deepcopy(arguments))) == taken_apart(expected)
    assert called == []


def test_command_output_calls_replace_of_a_str_subclass(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    called: list[str] = []
    monkeypatch.setattr(module, "text_", lambda value, encoding: OwnMethods("text", called))
    simulator.set_reply("get_cli_cmd_output", "output")
    assert module.get_cli_command_output("command") == "replaced"
    assert called == ["replace"]
