"""The ARP table parser of the module and of the reference model: header, rows and columns.
test_parsers.py covers what all parsers have in common."""

from __future__ import annotations

from typing import Any

import pytest

from tests.support.assertions import with_types
from tests.support.fake_cli import FakeCli

HEADER = "Address           Age(min)   Hardware Addr      Interface"


def parsed(cli: FakeCli, *lines: str) -> Any:
    """The rows of an output with these lines, each as a tuple of its columns."""
    cli.set_output(*lines)
    rows = cli.parser.get_system_arp_result()
    assert all(list(row) == ["ipAddress", "age", "mac", "interface"] for row in rows)
    return with_types([tuple(row.values()) for row in rows])


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
        HEADER + "\r" + HEADER,
    ],
)
def test_rows_follow_first_line_starting_with_address(
    cli: FakeCli, before: list[str], header: str
) -> None:
    assert parsed(cli, *before, header, "a b c d") == with_types([("a", "b", "c", "d")])


@pytest.mark.parametrize("after", [[], [""], ["", "\t", " \r"]])
def test_header_without_rows_gives_empty_list(cli: FakeCli, after: list[str]) -> None:
    assert parsed(cli, HEADER, *after) == with_types([])


ROWS = {
    "192.0.2.10        0          02:00:00:aa:bb:cc  port1": (
        *("192.0.2.10", "0", "02:00:00:aa:bb:cc", "port1"),
    ),
    "a b c d e": ("a", "b", "c", "d e"),
    "a b c d e f g": ("a", "b", "c", "d e"),
    "  a\tb \x0b c\u2003\u2003d\r": ("a", "b", "c", "d"),
    "a b c d\x1ce\x1ff": ("a", "b", "c", "d e"),
    "\u2028a\x85b\xa0c\u1680d\u202fe\u205f": ("a", "b", "c", "d e"),
    "a\rb\rc\rd\r": ("a", "b", "c", "d"),
    "a b\rc\x0bd\u2028e\x85f": ("a", "b", "c", "d e"),
    "Address Age Hardware Interface": ("Address", "Age", "Hardware", "Interface"),
    "\u00e9 \u20ac \U0001f600 {}": ("\u00e9", "\u20ac", "\U0001f600", "{}"),
    "{0} {} {1} {x} {": ("{0}", "{}", "{1}", "{x} {"),
    "a\0 \0b c\0c d \0": ("a\0", "\0b", "c\0c", "d \0"),
    "\ud800 \udfff c d": ("\ud800", "\udfff", "c", "d"),
    "\u200b \u180e \ufeff \u00ad": ("\u200b", "\u180e", "\ufeff", "\u00ad"),
}


@pytest.mark.parametrize("line", ROWS, ids=ascii)
def test_line_is_split_into_columns(cli: FakeCli, line: str) -> None:
    assert parsed(cli, HEADER, line) == with_types([ROWS[line]])


def test_each_line_is_row(cli: FakeCli) -> None:
    assert parsed(cli, "get system arp", HEADER, *ROWS) == with_types([*ROWS.values()])


@pytest.mark.parametrize("size", [63, 64, 65, 66])  # 64 is the size of the buffer for joining
def test_columns_around_buffer_size_are_complete(cli: FakeCli, size: int) -> None:
    rows = [tuple(character * size for character in "abcd")]
    for first_size in (1, 31, 60):
        interface = f"{'i' * first_size} {'j' * (size - first_size - 1)}"
        assert len(interface) == size
        rows.append(("a", "b", "c", interface))
    assert parsed(cli, HEADER, *map(" ".join, rows)) == with_types(rows)


def test_word_of_any_two_characters_is_kept(cli: FakeCli) -> None:
    """The parser compares machine words of text with patterns."""
    characters = [chr(code) for code in range(1, 128) if not chr(code).isspace()]
    for first in characters:
        rows = [(first + other * 7, other * 7 + first, "c", "d") for other in characters]
        assert parsed(cli, HEADER, *map(" ".join, rows)) == with_types(rows)
