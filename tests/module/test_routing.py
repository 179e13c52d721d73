"""The routing-table parser of the module and of the reference model: command, header block and
next hops. test_parsers.py covers what all parsers have in common."""

from __future__ import annotations

from typing import Any

import pytest

from tests.support.assertions import raises_exactly, with_types, wrong_type_message
from tests.support.doubles import StrSubclass
from tests.support.fake_cli import FakeCli

HEADER = "Routing entry for 192.0.2.0/24"
INFO = "  Known via static, distance 10, metric 0, best"
UPDATE = "  Last update 01:02:03 ago"
PLAIN = {
    "entry": "192.0.2.0/24",
    "distance": "10",
    "metric": "0",
    "lastUpdate": "01:02:03",
    "other": "  Known via static,  best",
}


def parsed(cli: FakeCli, *lines: str) -> Any:
    """The result of parsing these lines, with types."""
    cli.set_output(*lines)
    return with_types(cli.parser.get_routing_table_result("192.0.2.7"))


def entry(*hops: tuple[str, str, str], **fields: str) -> object:
    """The result with these next hops, with types; its other fields are `PLAIN` or given."""
    table = [dict(zip(("main", "ip", "interface"), hop)) for hop in hops]
    return with_types({**PLAIN, **fields, "table": table})


# The command


@pytest.mark.parametrize("address", ["192.0.2.7", "", "{}", "\u00e9 \U0001f600", None])
def test_address_completes_command(cli: FakeCli, address: str | None) -> None:
    cli.set_output(HEADER, INFO, UPDATE)
    assert with_types(cli.parser.get_routing_table_result(address)) == entry()
    assert with_types(cli.commands) == with_types(
        [f"get router info routing-table detail {address}"]
    )


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
    assert parsed(cli, *before, header, INFO, UPDATE) == entry()


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
    expected = entry(distance=distance, metric=metric, other=other)
    assert parsed(cli, HEADER, info, UPDATE) == expected


@pytest.mark.parametrize("update", ["a b c", "\ta\xa0b\u3000c d e", "a,b c,d c", "  a b c\r"])
def test_last_update_is_third_word_of_its_line(cli: FakeCli, update: str) -> None:
    assert parsed(cli, HEADER, INFO, update) == entry(lastUpdate="c")


@pytest.mark.parametrize("size", [63, 64, 65, 66])  # 64 is the size of the buffer for joining
def test_fields_around_buffer_size_are_complete(cli: FakeCli, size: int) -> None:
    main, ip, interface = "m" * size, "i" * size, "p" * size
    for first_size in (1, 31, 60):
        first, last = "f" * first_size, "l" * (size - first_size - 2)
        other = f"{first}, {last}"
        assert len(other) == size
        lines = HEADER, f"{first},b 10,d 0,{last}", UPDATE, f"{main} {ip}, via {interface}"
        assert parsed(cli, *lines) == entry((main, ip, interface), other=other)


def test_carriage_returns_are_removed(cli: FakeCli) -> None:
    lines = [HEADER, INFO, UPDATE, " * 198.51.100.1, via port1"]
    expected = entry(("*", "198.51.100.1", "port1"))
    assert parsed(cli, *lines) == expected
    assert parsed(cli, *(text + "\r" for text in lines)) == expected
    assert parsed(cli, *("\r".join(text) for text in lines)) == expected


# Next hops

HOPS = {
    "198.51.100.1,port1": ("", "198.51.100.1", "port1"),
    " 198.51.100.1 , port1 ": ("", "198.51.100.1", "port1"),
    "  * 198.51.100.1, via port1": ("*", "198.51.100.1", "port1"),
    "  directly connected, port2": ("directly", "connected", "port2"),
    "a b c d, e f g h, i j": ("a", "b", "f"),
    "a\u2003b,c\x1fd": ("a", "b", "d"),
    "\u2028a,b\x85": ("", "a", "b"),
    "a,b,,": ("", "a", "b"),
    "Routing entry, x": ("Routing", "entry", "x"),
    INFO: ("Known", "via", "10"),
    "\u00e9 \u20ac, \U0001f600": ("\u00e9", "\u20ac", "\U0001f600"),
    "a\0b,\0": ("", "a\0b", "\0"),
    "\ud800,\udfff": ("", "\ud800", "\udfff"),
    "\u200b,\ufeff": ("", "\u200b", "\ufeff"),
}


@pytest.mark.parametrize("line", HOPS, ids=ascii)
def test_line_is_parsed_as_next_hop(cli: FakeCli, line: str) -> None:
    assert parsed(cli, HEADER, INFO, UPDATE, line) == entry(HOPS[line])


def test_each_line_is_next_hop(cli: FakeCli) -> None:
    assert parsed(cli, "echo", HEADER, INFO, UPDATE, *HOPS) == entry(*HOPS.values())


def test_entry_without_next_hops_has_empty_table(cli: FakeCli) -> None:
    assert parsed(cli, HEADER, INFO, UPDATE, "") == entry()
