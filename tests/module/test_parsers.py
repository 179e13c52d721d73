"""The behavior that the three parsers of command output share: how they run the command and decode
its output, blank lines, malformed output, output that is not a string, and traceback lines."""

from __future__ import annotations

from types import ModuleType
from typing import Any, NamedTuple

import pytest

from tests.support import reference
from tests.support.assertions import (
    entry,
    line,
    raises_exactly,
    traceback_entries,
    with_types,
)
from tests.support.doubles import Failure, OwnMethodsStr, Recorder, raiser
from tests.support.fake_cli import FakeCli
from veldarin_simulator import Simulator

BFD, ROUTING, ARP = "get_bfd_neighbor", "get_routing_table_result", "get_system_arp_result"


class Sample(NamedTuple):
    """Output that a parser accepts: the lines above its table and those in it, and the result."""

    before: list[str]
    table: list[str]
    parsed: object

    @property
    def output(self) -> str:
        return "\n".join([*self.before, *self.table])


# Each sample has a character that is not ASCII, so that the decoding matters.
SAMPLES = {
    BFD: Sample(
        ["echo", "peer A is B"],
        ["\tk: \u00e9", "l: m"],
        {"A_B": {"neighbor_ip": "A", "interface": "B", "name": "A_B", "k": "\u00e9", "l": "m"}},
    ),
    ROUTING: Sample(
        ["echo", "Routing entry for \u00e9", "a,b c,d e,f", "a b c"],
        ["* a, via b", "c,d"],
        {
            "entry": "\u00e9",
            "distance": "c",
            "metric": "e",
            "lastUpdate": "c",
            "other": "a, f",
            "table": [
                {"main": "*", "ip": "a", "interface": "b"},
                {"main": "", "ip": "c", "interface": "d"},
            ],
        },
    ),
    ARP: Sample(
        ["echo", "Address"],
        ["\u00e9 b c d", "e f g h"],
        [
            {"ipAddress": "\u00e9", "age": "b", "mac": "c", "interface": "d"},
            {"ipAddress": "e", "age": "f", "mac": "g", "interface": "h"},
        ],
    ),
}
COMMANDS = {
    BFD: "get router info bfd neighbor",
    ROUTING: "get router info routing-table detail 192.0.2.7",
    ARP: "get system arp",
}

every_parser = pytest.mark.parametrize("function", SAMPLES)


def parse(parser: Any, function: str) -> Any:
    """Call a parser of the module or of the reference model."""
    arguments: dict[str, tuple[Any, ...]] = {BFD: (COMMANDS[BFD], {}), ROUTING: ("192.0.2.7",)}
    return getattr(parser, function)(*arguments.get(function, ()))


def assert_parses(parser: Any, function: str) -> None:
    """The parser returns the result of its sample."""
    assert with_types(parse(parser, function)) == with_types(SAMPLES[function].parsed)


# The command and its output


@every_parser
@pytest.mark.parametrize("name", ["get_cli_command_output", "text_"])
@pytest.mark.parametrize("kind", [Failure, KeyboardInterrupt])
def test_error_of_runner_or_text_propagates_unlogged(
    cli: FakeCli, function: str, name: str, kind: type[BaseException]
) -> None:
    error = kind()
    cli.patch(name, raiser(error))
    assert raises_exactly(kind, parse, cli.parser, function) is error
    assert cli.debug_messages == []
    assert cli.shared == {}


@every_parser
@pytest.mark.parametrize("name", ["get_cli_command_output", "text_", "_CHARSET"])
def test_missing_global_raises_name_error(cli: FakeCli, function: str, name: str) -> None:
    cli.delete(name)
    error = raises_exactly(NameError, parse, cli.parser, function)
    assert str(error) == f"name '{name}' is not defined"


@every_parser
def test_text_is_looked_up_first_and_charset_last(cli: FakeCli, function: str) -> None:
    """The statement is text_(get_cli_command_output(command), _CHARSET)."""
    output, character_set = object(), object()

    def run(command: str) -> object:
        cli.patch("text_", raiser(AssertionError("looked up too late")))
        cli.patch("_CHARSET", character_set)
        return output

    decode = Recorder(lambda value, encoding: SAMPLES[function].output)
    cli.patch("text_", decode)
    cli.run.side_effect = run
    assert_parses(cli.parser, function)
    assert decode.positional == [(output, character_set)]
    assert with_types(cli.commands) == with_types([COMMANDS[function]])


@every_parser
def test_bytes_output_is_decoded(cli: FakeCli, function: str) -> None:
    cli.set_output(SAMPLES[function].output.encode())
    assert_parses(cli.parser, function)


@every_parser
def test_str_subclass_methods_are_not_called(native_cli: FakeCli, function: str) -> None:
    called: list[str] = []
    output = OwnMethodsStr(SAMPLES[function].output, called)
    native_cli.patch("text_", lambda value, encoding: output)
    assert_parses(native_cli.parser, function)
    assert called == []


@every_parser
def test_native_output_is_parsed(simulator: Simulator, module: ModuleType, function: str) -> None:
    sample = SAMPLES[function]
    # Only the table has carriage returns: one in a header line would be part of a session's name.
    output = "\n".join(sample.before) + "\n--More--" + "\r\n".join([*sample.table, ""])
    simulator.set_reply("get_cli_cmd_output", output)
    assert_parses(module, function)
    assert [call.text for call in simulator.call_log] == [COMMANDS[function].encode()]


@every_parser
def test_runner_failure_has_entries_of_both_functions(
    simulator: Simulator, module: ModuleType, function: str
) -> None:
    simulator.set_reply("get_cli_cmd_output", None)
    error = raises_exactly(module.CFunctionError, parse, module, function)
    assert error.args == ("get_cli_command_output's result is null.",)
    names = [found.function for found in traceback_entries(error.__traceback__)]
    assert names == [function, "get_cli_command_output"]


def objects(value: Any) -> list[int]:
    """The identities of all lists and dictionaries in a value."""
    if isinstance(value, str):
        return []
    parts = value.values() if isinstance(value, dict) else value
    return [id(value), *(found for part in parts for found in objects(part))]


@every_parser
def test_each_call_returns_new_objects(cli: FakeCli, function: str) -> None:
    cli.set_output(SAMPLES[function].output)
    first, second = parse(cli.parser, function), parse(cli.parser, function)
    assert first == second
    assert not {*objects(first)} & {*objects(second)}


@every_parser
@pytest.mark.parametrize(
    "blank", ["", " ", "\t", "\r", "\x0b\x0c", "\x1c\x1d\x1e\x1f", "\xa0\u3000"], ids=ascii
)
def test_blank_lines_are_skipped(cli: FakeCli, function: str, blank: str) -> None:
    sample = SAMPLES[function]
    table = [part for row in sample.table for part in (blank, row, blank)]
    cli.set_output(*sample.before, *table)
    assert_parses(cli.parser, function)
    assert cli.debug_messages == []


# Malformed output

ENTRY = "Routing entry for 192.0.2.0/24\n"
INFO = "  Known via static, distance 10, metric 0, best\n"
BLOCK = f"{ENTRY}{INFO}  Last update 01:02:03 ago\n"
# For each statement of a parser, in order: outputs that make it fail.
MALFORMED = {
    ROUTING: {
        "header": ["", "nothing", "routing\nx Routing\nR outing\n", "Rou\nting", "\u0131"],
        "entry": ["Routing", "Routing entry for", f"  Routing  \n{INFO}", "Routing a b\n c"],
        "info": [ENTRY[:-1], f"x\n{ENTRY[:-1]}"],
        "distance": [
            ENTRY + info for info in ("", "one", "a,one,b c,d\n", "a,,b c,d\n", "a, \u2028x\x1f ,b")
        ],
        "metric": [ENTRY + info for info in ("a,b c", "a,b c,one", "a,b c,,d\na b c")],
        "lastUpdate": [ENTRY + INFO[:-1], ENTRY + INFO, f"{ENTRY}{INFO}a b", f"{ENTRY}a,b c,d e"],
        "other": [f"{ENTRY}a,b c,d e\na b c", f"{ENTRY}a,b c,d e\na b c\nx"],
        "ip": [BLOCK + hops for hops in (",b", ", ", "\x1f,b", "a,b\n\n ,x")],
        "interface field": [BLOCK + hops for hops in ("a", "a b c", "a,b\n--More--", ENTRY)],
        "interface": [BLOCK + hops for hops in ("a,", "a,,b", "a b, \u2003,c")],
    },
    ARP: {
        "header": ["", "nothing", "address\nx Address\nA ddress\n", "Addr\ness", "\u0131"],
        "age": ["Address\nprompt#", "Address\n\x00"],
        "mac": ["Address\na b", "Address\na b c d\n\na b"],
        "interface": ["Address\na b c", "Address\na b c d\n3 entries found", "Address\na,b c d"],
    },
}


@pytest.mark.parametrize(
    "function, outputs",
    [
        pytest.param(function, outputs, id=f"{function}-{statement}")
        for function, statements in MALFORMED.items()
        for statement, outputs in statements.items()
    ],
)
def test_malformed_output_fails_at_its_statement(
    cli: FakeCli, function: str, outputs: list[str]
) -> None:
    failed_at = set()
    for output in outputs:
        cli.set_output(output)
        error = raises_exactly(IndexError, parse, cli.parser, function)
        assert str(error) == "list index out of range"
        failed_at.add(tuple(traceback_entries(error.__traceback__)))
    (entries,) = failed_at
    assert len(entries) == (0 if cli.parser is reference else 1)
    assert cli.debug_messages == []


def test_each_statement_has_its_traceback_line(native_cli: FakeCli) -> None:
    lines = []
    for function, statements in MALFORMED.items():
        errors: list[BaseException] = []
        with native_cli.monkeypatch.context() as patch:
            patch.setattr(native_cli.parser, "text_", raiser(Failure()))
            errors.append(raises_exactly(Failure, parse, native_cli.parser, function))
        native_cli.set_output(None)
        errors.append(raises_exactly(AttributeError, parse, native_cli.parser, function))
        for outputs in statements.values():
            native_cli.set_output(outputs[0])
            errors.append(raises_exactly(IndexError, parse, native_cli.parser, function))
        lines += [entry(errors[0], function).first_line]
        lines += [line(error, function) for error in errors]
    routing = [378, 381, 382, 385, 387, 388, 389, 390, 391, 392, 401, 405, 406]
    assert lines == [*routing, 415, 417, 418, 421, 430, 431, 432]


# Output that is not a string


@pytest.mark.parametrize(
    "function, value, kind, text",
    [
        *(
            (function, value, AttributeError, f"'{kind}' object has no attribute '{method}'")
            for function, method in ((ROUTING, "replace"), (ARP, "split"))
            for value, kind in ((None, "NoneType"), (5, "int"), (["text"], "list"))
        ),
        (BFD, None, TypeError, "argument of type 'NoneType' is not iterable"),
        (BFD, 5, TypeError, "argument of type 'int' is not iterable"),
        (BFD, ["peer"], TypeError, 'can only concatenate str (not "list") to str'),
        (BFD, {"peer": 1}, TypeError, 'can only concatenate str (not "dict") to str'),
        (BFD, ("peer", "objname"), AttributeError, "'tuple' object has no attribute 'split'"),
        (BFD, {"peer", "objname"}, AttributeError, "'set' object has no attribute 'split'"),
        *(
            (function, make(b"peer Routing Address"), TypeError, message)
            for function in SAMPLES
            for make in (bytes, bytearray)
            for message in ["a bytes-like object is required, not 'str'"]
        ),
    ],
)
def test_non_str_output_raises_interpreter_error(
    cli: FakeCli, function: str, value: object, kind: type[Exception], text: str
) -> None:
    cli.patch("text_", lambda output, encoding: value)
    error = raises_exactly(kind, parse, cli.parser, function)
    assert str(error) == text
    assert cli.debug_messages == []
