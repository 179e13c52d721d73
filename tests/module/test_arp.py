"""The ARP table parser of the module and of the reference model: rows, columns, and the line of
every statement that malformed output makes fail."""

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
    with_types,
)
from tests.support.doubles import Failure, Recorder, StrSubclass, raiser
from tests.support.fake_cli import FakeCli
from veldarin_simulator import Simulator

FUNCTION = "get_system_arp_result"
HEADER = "Address           Age(min)   Hardware Addr      Interface"


def result(cli: FakeCli, *lines: object) -> Any:
    """The parsed output of these lines."""
    cli.set_output(*lines)
    return cli.parser.get_system_arp_result()


def row(ip: str, age: str, mac: str, interface: str) -> dict[str, str]:
    """One row of the table."""
    return {"ipAddress": ip, "age": age, "mac": mac, "interface": interface}


def test_arp_table_parses_every_row(cli: FakeCli) -> None:
    parsed = result(
        cli,
        "get system arp",
        HEADER,
        "192.0.2.10        0          02:00:00:aa:bb:cc  port1",
        "192.0.2.11        3          02:00:00:aa:bb:cd  port1 vlan10",
        "",
    )
    assert with_types(parsed) == with_types(
        [
            row("192.0.2.10", "0", "02:00:00:aa:bb:cc", "port1"),
            row("192.0.2.11", "3", "02:00:00:aa:bb:cd", "port1 vlan10"),
        ]
    )


def test_command_output_is_decoded_with_charset(cli: FakeCli) -> None:
    output, character_set = object(), object()
    decode = Recorder(lambda value, encoding: HEADER)
    cli.set_output(output)
    cli.patch("text_", decode)
    cli.patch("_CHARSET", character_set)
    assert cli.parser.get_system_arp_result() == []
    assert cli.commands == ["get system arp"]
    assert type(cli.commands[0]) is str
    assert decode.positional == [(output, character_set)]


@pytest.mark.parametrize(
    "before", [[], [""], ["an Address", "address", "x y", "a b c d e"], ["get system arp\r", "\t"]]
)
@pytest.mark.parametrize(
    "header",
    [
        HEADER,
        "Address",
        "Addresses of all",
        " \t Address\r",
        "\x1c\x85\u2028Address",
        "\xa0\u3000Address\u2003",
    ],
)
def test_rows_follow_first_line_starting_with_address(
    cli: FakeCli, before: list[str], header: str
) -> None:
    assert result(cli, *before, header, "a b c d") == [row("a", "b", "c", "d")]


@pytest.mark.parametrize("after", [[], [""], ["", "\t", " \r"]])
def test_header_without_rows_gives_empty_list(cli: FakeCli, after: list[str]) -> None:
    assert result(cli, HEADER, *after) == []


@pytest.mark.parametrize(
    "line_, expected",
    [
        ("a b c d", row("a", "b", "c", "d")),
        ("a b c d e", row("a", "b", "c", "d e")),
        ("a b c d e f g", row("a", "b", "c", "d e")),
        ("  a\tb \x0b c\u2003\u2003d\r", row("a", "b", "c", "d")),
        ("a b c d\x1ce\x1ff", row("a", "b", "c", "d e")),
        ("\u2028a\x85b\xa0c\u1680d\u202fe\u205f", row("a", "b", "c", "d e")),
        ("a\rb\rc\rd\r", row("a", "b", "c", "d")),
        ("Address Age Hardware Interface", row("Address", "Age", "Hardware", "Interface")),
        ("\u00e9 \u20ac \U0001f600 {}", row("\u00e9", "\u20ac", "\U0001f600", "{}")),
        ("{0} {} {1} {x} {", row("{0}", "{}", "{1}", "{x} {")),
        ("a\0 \0b c\0c d \0", row("a\0", "\0b", "c\0c", "d \0")),
        ("\ud800 \udfff c d", row("\ud800", "\udfff", "c", "d")),
        ("\u200b \u180e \ufeff \u00ad", row("\u200b", "\u180e", "\ufeff", "\u00ad")),
    ],
)
def test_line_is_split_into_columns(cli: FakeCli, line_: str, expected: dict[str, str]) -> None:
    assert with_types(result(cli, HEADER, line_)) == with_types([expected])


@pytest.mark.parametrize("size", [63, 64, 65, 66])  # 64 is the size of the buffer for joining
@pytest.mark.parametrize("first_size", [1, 31, 60])
def test_interface_around_buffer_size_is_complete(cli: FakeCli, size: int, first_size: int) -> None:
    interface = f"{'i' * first_size} {'j' * (size - first_size - 1)}"
    assert len(interface) == size
    assert result(cli, HEADER, f"a b c {interface}") == [row("a", "b", "c", interface)]


@pytest.mark.parametrize("size", [63, 64, 65, 66])
def test_columns_around_buffer_size_are_complete(cli: FakeCli, size: int) -> None:
    columns = [character * size for character in "abcd"]
    assert result(cli, HEADER, " ".join(columns)) == [row(*columns)]


@pytest.mark.parametrize(
    "blank", ["", " ", "\t", "\r", "\x0b\x0c", "\x1c\x1d\x1e\x1f", "\xa0\u3000"]
)
def test_blank_lines_are_skipped(cli: FakeCli, blank: str) -> None:
    rows = result(cli, HEADER, blank, "a b c d", blank, blank, "e f g h i", blank)
    assert rows == [row("a", "b", "c", "d"), row("e", "f", "g", "h i")]


def test_only_line_feed_ends_line(cli: FakeCli) -> None:
    assert result(cli, HEADER + "\r" + HEADER, "a b\rc\x0bd\u2028e\x85f") == [
        row("a", "b", "c", "d e")
    ]


def test_each_call_returns_new_objects(cli: FakeCli) -> None:
    first, second = result(cli, HEADER, "a b c d"), result(cli, HEADER, "a b c d")
    assert first == second
    assert first is not second
    assert first[0] is not second[0]


# Malformed output

MALFORMED = [
    # the statements in order, each with the outputs that fail at it
    (
        "header",
        [[""], ["nothing"], ["address", "x Address", "A ddress", ""], ["Addr\ness"], ["\u0131"]],
    ),
    ("mac", [[HEADER, "a b"], [HEADER, "a b c d", "", "a b"]]),
    ("interface", [[HEADER, "a b c"], [HEADER, "a b c d", "3 entries found"], [HEADER, "a,b c d"]]),
]
AGE = [HEADER, "prompt#"]


@pytest.mark.parametrize(
    "lines",
    [
        pytest.param(lines, id=f"{statement}-{number}")
        for statement, outputs in [*MALFORMED, ("age", [AGE, [HEADER, "\x00"]])]
        for number, lines in enumerate(outputs)
    ],
)
def test_malformed_output_raises_index_error(cli: FakeCli, lines: list[str]) -> None:
    error = raises_exactly(IndexError, result, cli, *lines)
    assert str(error) == "list index out of range"
    assert cli.debug_messages == []


@pytest.mark.parametrize("outputs", [o for _, o in MALFORMED], ids=[s for s, _ in MALFORMED])
def test_statement_fails_at_one_line(native_cli: FakeCli, outputs: list[list[str]]) -> None:
    errors = [raises_exactly(IndexError, result, native_cli, *lines) for lines in outputs]
    assert len({line(error, FUNCTION) for error in errors}) == 1
    assert all(len(traceback_entries(error.__traceback__)) == 1 for error in errors)


def test_traceback_lines_increase_with_statements(native_cli: FakeCli) -> None:
    cli = native_cli
    with cli.monkeypatch.context() as patch:
        patch.setattr(cli.parser, "text_", raiser(Failure()))
        fetch = raises_exactly(Failure, result, cli, "")
    split = raises_exactly(AttributeError, result, cli, None)
    header = raises_exactly(IndexError, result, cli, "nothing")
    columns = [
        raises_exactly(IndexError, result, cli, *lines)
        for lines in (AGE, MALFORMED[1][1][0], MALFORMED[2][1][0])
    ]
    lines = [line(error, FUNCTION) for error in (fetch, split, header, *columns)]
    assert is_increasing([entry(fetch, FUNCTION).first_line, *lines])


def test_function_lines_follow_routing_parser(native_cli: FakeCli) -> None:
    routing = "get_routing_table_result"
    last = raises_exactly(IndexError, lambda: native_cli.parser.get_routing_table_result("a"))
    assert (
        line(last, routing) < entry(raises_exactly(IndexError, result, native_cli, ""), FUNCTION)[1]
    )


# Output that is not a string


@pytest.mark.parametrize(
    "value, kind, text",
    [
        (None, AttributeError, "'NoneType' object has no attribute 'split'"),
        (5, AttributeError, "'int' object has no attribute 'split'"),
        (["text"], AttributeError, "'list' object has no attribute 'split'"),
        (bytearray(b"text"), TypeError, "a bytes-like object is required, not 'str'"),
    ],
    ids=repr,
)
def test_non_str_output_raises_interpreter_error(
    cli: FakeCli, value: object, kind: type[Exception], text: str
) -> None:
    error = raises_exactly(kind, result, cli, value)
    assert str(error) == text


def test_str_subclass_output_is_parsed(cli: FakeCli) -> None:
    parsed = result(cli, StrSubclass(HEADER + "\na b c d"))
    assert with_types(parsed) == with_types([row("a", "b", "c", "d")])


def test_native_output_is_parsed(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply("get_cli_cmd_output", HEADER + "\r\na b c d\r\n--More--e f g h i\r\n")
    assert module.get_system_arp_result() == [row("a", "b", "c", "d"), row("e", "f", "g", "h i")]
    assert [call.text for call in simulator.call_log] == [b"get system arp"]
