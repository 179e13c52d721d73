"""The routing-table parser of the module and of the reference model: header block, next hops, and
the line of every statement that malformed output makes fail."""

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
    wrong_type_message,
)
from tests.support.doubles import Failure, Recorder, StrSubclass, raiser
from tests.support.fake_cli import FakeCli
from veldarin_simulator import Simulator

FUNCTION = "get_routing_table_result"
HEADER = "Routing entry for 192.0.2.0/24"
INFO = "  Known via static, distance 10, metric 0, best"
UPDATE = "  Last update 01:02:03 ago"


def result(cli: FakeCli, *lines: object) -> Any:
    """The parsed output of these lines."""
    cli.set_output(*lines)
    return cli.parser.get_routing_table_result("192.0.2.7")


def routes(cli: FakeCli, *lines: str) -> Any:
    """The next hops of an output with these lines after a plain header block."""
    return result(cli, HEADER, INFO, UPDATE, *lines)["table"]


def route(main: str, ip: str, interface: str) -> dict[str, str]:
    """One next hop."""
    return {"main": main, "ip": ip, "interface": interface}


PLAIN = {
    "entry": "192.0.2.0/24",
    "distance": "10",
    "metric": "0",
    "lastUpdate": "01:02:03",
    "other": "  Known via static,  best",
}


def test_entry_with_next_hops_is_parsed(cli: FakeCli) -> None:
    parsed = result(
        cli,
        "get router info routing-table detail 192.0.2.7",
        HEADER,
        INFO,
        UPDATE,
        "  * 198.51.100.1, via port1",
        "",
        "  directly connected, port2",
    )
    expected = {
        **PLAIN,
        "table": [route("*", "198.51.100.1", "port1"), route("directly", "connected", "port2")],
    }
    assert with_types(parsed) == with_types(expected)


# The command


@pytest.mark.parametrize(
    "address, command",
    [
        ("192.0.2.7", "get router info routing-table detail 192.0.2.7"),
        ("", "get router info routing-table detail "),
        ("{}", "get router info routing-table detail {}"),
        ("\u00e9 \U0001f600", "get router info routing-table detail \u00e9 \U0001f600"),
        (None, "get router info routing-table detail None"),
    ],
)
def test_address_completes_command(cli: FakeCli, address: str | None, command: str) -> None:
    output, character_set = object(), object()
    decode = Recorder(lambda value, encoding: "\n".join([HEADER, INFO, UPDATE]))
    cli.set_output(output)
    cli.patch("text_", decode)
    cli.patch("_CHARSET", character_set)
    assert cli.parser.get_routing_table_result(address) == {**PLAIN, "table": []}
    assert cli.commands == [command]
    assert type(cli.commands[0]) is str
    assert decode.positional == [(output, character_set)]


@pytest.mark.parametrize(
    "address",
    [b"192.0.2.7", StrSubclass("192.0.2.7"), 5, ["a"], 1.5],
    ids=lambda a: type(a).__name__,
)
def test_non_str_address_raises_before_any_command(cli: FakeCli, address: object) -> None:
    error = raises_exactly(TypeError, cli.parser.get_routing_table_result, address)
    assert str(error) == wrong_type_message("ip_address", "str", address)
    assert cli.commands == []


# The header block


@pytest.mark.parametrize(
    "before",
    [
        [],
        [""],
        ["the Routing entry", " routing", "x, y, z", ":"],
        ["get router info routing-table detail", "\r", "\t"],
    ],
)
@pytest.mark.parametrize(
    "header",
    [
        HEADER,
        "  \t" + HEADER + "  ",
        "Routing table a 192.0.2.0/24 b c d",
        "Routing\tentry\x0bfor\u2003192.0.2.0/24",
        "\x1c\x85\u2028Routing entry for 192.0.2.0/24\r",
        "RoutingTable x y 192.0.2.0/24",
    ],
)
def test_first_line_starting_with_routing_is_header(
    cli: FakeCli, before: list[str], header: str
) -> None:
    assert with_types(result(cli, *before, header, INFO, UPDATE)) == with_types(
        {**PLAIN, "table": []}
    )


@pytest.mark.parametrize(
    "info, distance, metric, other",
    [
        ("a,b c,d e,f", "c", "e", "a, f"),
        ("  a  ,b c,d e,  f  ", "c", "e", "  a  ,   f  "),
        ("a, b\tc x y,d\u2003e z,f,g h,i", "c", "e", "a, f"),
        (",b c,d e,", "c", "e", ", "),
        ("\u00e9,b \U0001f600,d \u20ac,{}", "\U0001f600", "\u20ac", "\u00e9, {}"),
        ("{0},b c,d e,{x}", "c", "e", "{0}, {x}"),
        ("a\0,b c,d e,\x1c", "c", "e", "a\0, \x1c"),
    ],
)
def test_line_after_header_gives_distance_and_metric(
    cli: FakeCli, info: str, distance: str, metric: str, other: str
) -> None:
    expected = {**PLAIN, "distance": distance, "metric": metric, "other": other, "table": []}
    assert with_types(result(cli, HEADER, info, UPDATE)) == with_types(expected)


@pytest.mark.parametrize("size", [63, 64, 65, 66])  # 64 is the size of the buffer for joining
@pytest.mark.parametrize("first_size", [1, 31, 60])
def test_other_around_buffer_size_is_complete(cli: FakeCli, size: int, first_size: int) -> None:
    first, last = "f" * first_size, "l" * (size - first_size - 2)
    other = result(cli, HEADER, f"{first},b c,d e,{last}", UPDATE)["other"]
    assert len(other) == size
    assert other == f"{first}, {last}"


@pytest.mark.parametrize("size", [63, 64, 65, 66])
def test_fields_around_buffer_size_are_complete(cli: FakeCli, size: int) -> None:
    main, ip, interface = "m" * size, "i" * size, "p" * size
    assert routes(cli, f"{main} {ip}, via {interface}") == [route(main, ip, interface)]


@pytest.mark.parametrize("update", ["a b c", "\ta\xa0b\u3000c d e", "a,b c,d c", "  a b c\r"])
def test_last_update_is_third_word_of_its_line(cli: FakeCli, update: str) -> None:
    assert result(cli, HEADER, INFO, update)["lastUpdate"] == "c"


def test_carriage_returns_are_removed(cli: FakeCli) -> None:
    lines = [HEADER, INFO, UPDATE, " * 198.51.100.1, via port1"]
    expected = result(cli, *lines)
    assert expected["other"] == PLAIN["other"]
    assert result(cli, *(text + "\r" for text in lines)) == expected
    assert result(cli, *("\r".join(text) for text in lines)) == expected


# Next hops


@pytest.mark.parametrize(
    "line_, expected",
    [
        ("198.51.100.1,port1", route("", "198.51.100.1", "port1")),
        (" 198.51.100.1 , port1 ", route("", "198.51.100.1", "port1")),
        ("* 198.51.100.1, via port1", route("*", "198.51.100.1", "port1")),
        ("a b c d, e f g h, i j", route("a", "b", "f")),
        ("a\u2003b,c\x1fd", route("a", "b", "d")),
        ("\u2028a,b\x85", route("", "a", "b")),
        ("a,b,,", route("", "a", "b")),
        ("Routing entry, via port1", route("Routing", "entry", "port1")),
        ("\u00e9 \u20ac, \U0001f600", route("\u00e9", "\u20ac", "\U0001f600")),
        ("a\0b,\0", route("", "a\0b", "\0")),
        ("\ud800,\udfff", route("", "\ud800", "\udfff")),
        ("\u200b,\ufeff", route("", "\u200b", "\ufeff")),
    ],
)
def test_line_is_parsed_as_next_hop(cli: FakeCli, line_: str, expected: dict[str, str]) -> None:
    assert with_types(routes(cli, line_)) == with_types([expected])


@pytest.mark.parametrize(
    "blank", ["", " ", "\t", "\r", "\x0b\x0c", "\x1c\x1d\x1e\x1f", "\xa0\u3000"]
)
def test_blank_lines_are_skipped(cli: FakeCli, blank: str) -> None:
    assert routes(cli, blank, "a,b", blank, blank, "c,d", blank) == [
        route("", "a", "b"),
        route("", "c", "d"),
    ]


def test_entry_without_next_hops_has_empty_table(cli: FakeCli) -> None:
    assert routes(cli) == []
    assert routes(cli, "") == []


def test_second_header_block_is_parsed_as_next_hops(cli: FakeCli) -> None:
    assert routes(cli, "Routing entry, x", INFO, "a b c, d") == [
        route("Routing", "entry", "x"),
        route("Known", "via", "10"),
        route("a", "b", "d"),
    ]


def test_each_call_returns_new_objects(cli: FakeCli) -> None:
    first = result(cli, HEADER, INFO, UPDATE, "a,b")
    second = result(cli, HEADER, INFO, UPDATE, "a,b")
    assert first == second
    assert first is not second
    assert first["table"] is not second["table"]
    assert first["table"][0] is not second["table"][0]


# Malformed output

MALFORMED = [
    # the statements in order, each with the outputs that fail at it
    (
        "header",
        [[""], ["nothing"], ["routing", "x Routing", "R outing", ""], ["Rou\nting"], ["\u0131"]],
    ),
    (
        "entry",
        [["Routing"], ["Routing entry for"], ["  Routing  ", INFO, UPDATE], ["Routing a b\n c"]],
    ),
    ("info", [[HEADER], ["x", HEADER]]),
    (
        "distance",
        [
            [HEADER, ""],
            [HEADER, "one field"],
            [HEADER, "a,one,b c,d", UPDATE],
            [HEADER, "a,,b c,d", UPDATE],
            [HEADER, "a, \u2028x\x1f ,b c,d", UPDATE],
        ],
    ),
    ("metric", [[HEADER, "a,b c"], [HEADER, "a,b c,one"], [HEADER, "a,b c,,d", UPDATE]]),
    (
        "lastUpdate",
        [[HEADER, INFO], [HEADER, INFO, ""], [HEADER, INFO, "a b"], [HEADER, "a,b c,d e"]],
    ),
    ("other", [[HEADER, "a,b c,d e", UPDATE], [HEADER, "a,b c,d e", UPDATE, "x"]]),
    (
        "ip",
        [
            [HEADER, INFO, UPDATE, ",b"],
            [HEADER, INFO, UPDATE, ", "],
            [HEADER, INFO, UPDATE, "\x1f,b"],
            [HEADER, INFO, UPDATE, "a,b", "", " ,x"],
        ],
    ),
    (
        "interface field",
        [
            [HEADER, INFO, UPDATE, "a"],
            [HEADER, INFO, UPDATE, "a b c"],
            [HEADER, INFO, UPDATE, "a,b", "--More--"],
            [HEADER, INFO, UPDATE, HEADER],
        ],
    ),
    (
        "interface",
        [
            [HEADER, INFO, UPDATE, "a,"],
            [HEADER, INFO, UPDATE, "a,,b"],
            [HEADER, INFO, UPDATE, "a b, \u2003,c"],
        ],
    ),
]


@pytest.mark.parametrize(
    "lines",
    [
        pytest.param(lines, id=f"{statement}-{number}")
        for statement, outputs in MALFORMED
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
    refused = raises_exactly(TypeError, cli.parser.get_routing_table_result, 5)
    with cli.monkeypatch.context() as patch:
        patch.setattr(cli.parser, "text_", raiser(Failure()))
        fetch = raises_exactly(Failure, result, cli, "")
    split = raises_exactly(AttributeError, result, cli, None)
    malformed = [raises_exactly(IndexError, result, cli, *outputs[0]) for _, outputs in MALFORMED]
    lines = [line(error, FUNCTION) for error in (refused, fetch, split, *malformed)]
    assert entry(refused, FUNCTION).first_line == lines[0]
    assert is_increasing([375, *lines])


# Output that is not a string


@pytest.mark.parametrize(
    "value, kind, text",
    [
        (None, AttributeError, "'NoneType' object has no attribute 'replace'"),
        (5, AttributeError, "'int' object has no attribute 'replace'"),
        (["text"], AttributeError, "'list' object has no attribute 'replace'"),
        (bytearray(b"text"), TypeError, "a bytes-like object is required, not 'str'"),
    ],
    ids=repr,
)
def test_non_str_output_raises_interpreter_error(
    cli: FakeCli, value: object, kind: type[Exception], text: str
) -> None:
    error = raises_exactly(kind, result, cli, value)
    assert str(error) == text


@pytest.mark.parametrize("carriage_return", ["", "\r"])
def test_str_subclass_output_is_parsed(cli: FakeCli, carriage_return: str) -> None:
    text = StrSubclass("\n".join([HEADER, INFO, UPDATE, "a,b" + carriage_return]))
    parsed = result(cli, text)
    assert with_types(parsed) == with_types({**PLAIN, "table": [route("", "a", "b")]})


def test_native_output_is_parsed(simulator: Simulator, module: ModuleType) -> None:
    output = "\r\n".join(["echo", HEADER, INFO, UPDATE, "--More-- * a, via b", ""])
    simulator.set_reply("get_cli_cmd_output", output)
    assert module.get_routing_table_result("192.0.2.7") == {
        **PLAIN,
        "table": [route("*", "a", "b")],
    }
    assert [call.text for call in simulator.call_log] == [
        b"get router info routing-table detail 192.0.2.7"
    ]
