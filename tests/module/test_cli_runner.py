"""The command runner: encoding of the command, decoding of the output, and the native buffer, which
is freed on every path."""

from __future__ import annotations

from types import ModuleType
from typing import Any, TypeVar

import pytest

from tests.support.assertions import (
    entry,
    line,
    raises_exactly,
    traceback_entries,
    wrong_type_message,
)
from tests.support.doubles import (
    AlwaysRaises,
    BytesSubclass,
    Failure,
    IntMakingException,
    OwnMethodsStr,
    Recorder,
    StrSubclass,
    UnconstructibleException,
    raiser,
)
from tests.support.module_patch import Patch
from veldarin_simulator import Simulator

FUNCTION = "get_cli_command_output"
NULL_RESULT = "get_cli_command_output's result is null."

E = TypeVar("E", bound=BaseException)


class ByteArray(bytearray):
    """A subclass of bytearray."""


class Runner:
    """The command runner, whose service prints "output" unless a test sets another reply."""

    def __init__(self, simulator: Simulator, module: ModuleType, patch: Patch) -> None:
        self.simulator = simulator
        self.module = module
        self.run = module.get_cli_command_output
        self.patch = patch
        self.reply("output")

    def reply(self, output: Any) -> None:
        """Set the output of each command, or the function that returns it."""
        self.simulator.set_reply("get_cli_cmd_output", output)

    @property
    def sent(self) -> list[bytes | None]:
        """The commands that reached the service, each with a null context."""
        calls = self.simulator.call_log
        assert all((call.service, call.context) == ("get_cli_cmd_output", None) for call in calls)
        return [call.text for call in calls]

    @property
    def live_buffers(self) -> int:
        """The number of native buffers that are not freed."""
        return self.simulator.live_objects.text_buffers

    def fails(self, kind: type[E], command: object = "command") -> E:
        """Return the exception of a call that leaves one traceback entry and frees the buffer."""
        error = raises_exactly(kind, self.run, command)
        (found,) = traceback_entries(error.__traceback__)
        assert (found.function, found.line > 0) == (FUNCTION, True)
        assert self.live_buffers == 0
        return error


@pytest.fixture
def runner(simulator: Simulator, module: ModuleType, patch: Patch) -> Runner:
    """The command runner of the module."""
    return Runner(simulator, module, patch)


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
    runner: Runner, command: str, arrives: bytes
) -> None:
    assert runner.run(command) == "output"
    assert runner.sent == [arrives]


def test_each_call_runs_command_again(runner: Runner) -> None:
    outputs = iter(["first", "second"])
    runner.reply(lambda command: next(outputs))
    assert [runner.run("c") for _ in range(2)] == ["first", "second"]
    assert runner.sent == [b"c", b"c"]


@pytest.mark.parametrize(
    "command", [b"c", StrSubclass("c"), 5, ["c"], bytearray(b"c")], ids=lambda c: type(c).__name__
)
def test_non_str_command_is_rejected_before_any_call(runner: Runner, command: object) -> None:
    encode = Recorder()
    runner.patch("bytes_", encode)
    error = runner.fails(TypeError, command)
    assert str(error) == wrong_type_message("cmd_s", "str", command)
    found = entry(error, FUNCTION)
    assert found.line == found.first_line
    assert encode.calls == []
    assert runner.sent == []


@pytest.mark.parametrize("command", ["plain", None])
def test_conversions_get_text_and_charset(runner: Runner, command: str | None) -> None:
    character_set = object()
    encode = Recorder(lambda text, encoding: b"encoded")
    decode = Recorder(lambda value, encoding: "a--More--b")
    runner.patch("bytes_", encode)
    runner.patch("text_", decode)
    runner.patch("_CHARSET", character_set)
    runner.reply(b"\xffout\0put")
    assert runner.run(command) == "ab"
    assert encode.positional == [(command, character_set)]
    assert encode.positional[0][0] is command
    assert decode.positional == [(b"\xffout", character_set)]
    assert type(decode.positional[0][0]) is bytes
    assert runner.sent == [b"encoded"]


@pytest.mark.parametrize(
    "encoded",
    [b"encoded", bytearray(b"encoded"), bytearray(), BytesSubclass(b"e"), ByteArray(b"e")],
    ids=repr,
)
def test_encoded_bytes_or_bytearray_is_accepted(runner: Runner, encoded: bytes) -> None:
    runner.patch("bytes_", lambda text, encoding: encoded)
    assert runner.run("command") == "output"
    assert runner.sent == [bytes(encoded)]


@pytest.mark.parametrize("kind", [bytes, bytearray])
def test_encoded_command_is_released_before_native_call(runner: Runner, kind: type[bytes]) -> None:
    events: list[object] = []

    class Encoded(kind):  # type: ignore[valid-type, misc]
        def __del__(self) -> None:
            events.append("dropped")

    def reply(command: bytes) -> str:
        events.append(command)
        return "output"

    runner.patch("bytes_", lambda text, encoding: Encoded(b"encoded"))
    runner.reply(reply)
    runner.run("command")
    assert events == ["dropped", b"encoded"]


@pytest.mark.parametrize(
    "encoded", ["text", None, 5, memoryview(b"c"), [99]], ids=lambda e: type(e).__name__
)
def test_encoded_non_bytes_raises_type_error(runner: Runner, encoded: object) -> None:
    runner.patch("bytes_", lambda text, encoding: encoded)
    assert str(runner.fails(TypeError)) == f"expected bytes, {type(encoded).__name__} found"
    assert runner.sent == []


@pytest.mark.parametrize(
    "command, kind", [(None, TypeError), ("\ud800", UnicodeEncodeError)], ids=["None", "surrogate"]
)
def test_unencodable_command_is_not_sent(
    runner: Runner, command: str | None, kind: type[Exception]
) -> None:
    error = runner.fails(kind, command)
    assert command or str(error) == "expected bytes, NoneType found"
    assert runner.sent == []


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
    runner: Runner, output: str | bytes, text: str
) -> None:
    runner.reply(output)
    result = runner.run("command")
    assert (type(result), result) == (str, text)
    assert runner.live_buffers == 0


def test_charset_is_looked_up_for_each_conversion(runner: Runner) -> None:
    def reply(command: bytes) -> bytes:
        runner.patch("_CHARSET", "utf-16-le")
        return b"o"  # and its NUL ends the text

    decode = Recorder(lambda value, encoding: encoding)
    runner.patch("_CHARSET", "latin-1")
    runner.patch("text_", decode)
    runner.reply(reply)
    assert runner.run("\u00e9") == "utf-16-le"
    assert runner.sent == [b"\xe9"]


@pytest.mark.parametrize("decoded, text", [("a--More--b", "ab"), ("plain", "plain")])
def test_str_subclass_output_is_accepted(runner: Runner, decoded: str, text: str) -> None:
    runner.patch("text_", lambda value, encoding: StrSubclass(decoded))
    result = runner.run("command")
    assert (type(result), result) == (str, text)


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
    runner: Runner, decoded: object, kind: type[Exception], text: str
) -> None:
    runner.patch("text_", lambda value, encoding: decoded)
    assert str(runner.fails(kind)) == text


def test_undecodable_output_raises_and_frees_buffer(runner: Runner) -> None:
    runner.reply(b"\xff")
    error = runner.fails(UnicodeDecodeError)
    assert (error.encoding, error.object) == ("utf-8", b"\xff")


def test_buffer_is_freed_after_decoding(runner: Runner) -> None:
    alive: list[int] = []

    def decode(value: bytes, encoding: str) -> str:
        alive.append(runner.live_buffers)
        return "text"

    runner.patch("text_", decode)
    runner.run("command")
    assert alive == [1]
    assert runner.live_buffers == 0


# No output


def test_null_output_raises_c_function_error(runner: Runner) -> None:
    runner.patch("text_", raiser(AssertionError("decoded")))
    runner.reply(None)
    assert runner.fails(runner.module.CFunctionError).args == (NULL_RESULT,)
    assert runner.sent == [b"command"]


def test_error_class_is_looked_up_at_failure(runner: Runner) -> None:
    runner.reply(lambda command: runner.patch("CFunctionError", Failure))
    assert runner.fails(Failure).args == (NULL_RESULT,)


class ReturnedFailure(Exception):
    """An exception that a call returns, as a class or as an instance."""


class StoppingFailure(KeyboardInterrupt):
    """The same, not derived from Exception."""


@pytest.mark.parametrize("kind", [ReturnedFailure, StoppingFailure])
@pytest.mark.parametrize("instance", [True, False], ids=["instance", "class"])
def test_returned_exception_is_raised_as_by_raise(
    runner: Runner, kind: type[BaseException], instance: bool
) -> None:
    returned = kind("by the call") if instance else kind
    make = Recorder(lambda message: returned)
    runner.patch("CFunctionError", make)
    runner.reply(None)
    error = runner.fails(kind)
    assert error.args == (("by the call",) if instance else ())
    assert (error is returned) == instance
    assert make.positional == [(NULL_RESULT,)]


NO_EXCEPTION = "exceptions must derive from BaseException"


@pytest.mark.parametrize(
    "returned, text",
    [
        *((returned, NO_EXCEPTION) for returned in (None, "text", 5, object)),
        (
            IntMakingException,
            f"calling {IntMakingException!r} should have returned an instance of BaseException, "
            "not <class 'int'>",
        ),
    ],
    ids=["None", "str", "int", "class", "exception class that returns an int"],
)
def test_returned_non_exception_raises_type_error(
    runner: Runner, returned: object, text: str
) -> None:
    runner.patch("CFunctionError", lambda message: returned)
    runner.reply(None)
    assert str(runner.fails(TypeError)) == text


@pytest.mark.parametrize(
    "error_class",
    [UnconstructibleException, lambda message: UnconstructibleException],
    ids=["called", "returned"],
)
def test_failing_error_class_raises_its_own_error(runner: Runner, error_class: object) -> None:
    runner.patch("CFunctionError", error_class)
    runner.reply(None)
    runner.fails(Failure)


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
def test_missing_or_failing_global_ends_call(
    runner: Runner, name: str, output: str | None, commands: list[bytes]
) -> None:
    runner.reply(output)
    if name != "_CHARSET":
        error = Failure()
        runner.patch(name, raiser(error))
        assert runner.fails(Failure) is error
        assert runner.sent == commands
        runner.simulator.clear_calls()
    runner.patch.delete(name)
    assert str(runner.fails(NameError)) == f"name '{name}' is not defined"
    assert runner.sent == commands


def test_charset_missing_at_decoding_frees_buffer(runner: Runner) -> None:
    def reply(command: bytes) -> str:
        runner.patch.delete("_CHARSET")
        return "output"

    runner.reply(reply)
    assert str(runner.fails(NameError)) == "name '_CHARSET' is not defined"


def test_each_statement_has_its_traceback_line(
    runner: Runner, monkeypatch: pytest.MonkeyPatch
) -> None:
    def failing_line(name: str, output: str | None) -> Any:
        runner.reply(output)
        with monkeypatch.context() as patch:
            patch.setattr(runner.module, name, raiser(Failure()))
            return line(runner.fails(Failure), FUNCTION)

    refused = runner.fails(TypeError, 5)
    lines = [
        line(refused, FUNCTION),
        failing_line("bytes_", "output"),
        failing_line("CFunctionError", None),
        failing_line("text_", "output"),
    ]
    assert lines == [253, 255, 260, 261]


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
    runner: Runner, caplog: pytest.LogCaptureFixture, command: Any, output: Any, kind: str | None
) -> None:
    runner.patch("_logger", AlwaysRaises())  # also when an attribute is looked up
    runner.reply(output)
    raised = None
    with caplog.at_level(0):
        try:
            runner.run(command)
        except Exception as error:
            raised = type(error).__name__
    assert raised == kind
    assert caplog.records == []


def test_command_output_calls_replace_of_str_subclass(runner: Runner) -> None:
    called: list[str] = []
    runner.patch("text_", lambda value, encoding: OwnMethodsStr("text", called))
    assert runner.run("command") == "replaced"
    assert called == ["replace"]
