"""Non-ASCII text: every code point passes through the parsers unchanged, in each storage width; no
codec error handler of the process is called; white space is that of the interpreter."""

from __future__ import annotations

import codecs
import ctypes
import itertools
import sys
from collections.abc import Iterator
from typing import Any

import pytest

from tests.support import reference
from tests.support.doubles import StrSubclass, raiser
from tests.support.fake_cli import FakeCli

# The first and last code points of each length in UTF-8 and of the surrogates.
BOUNDARIES = "\x7f\x80\xff\u0100\u07ff\u0800\ud7ff\ud800\udbff\udc00\udfff\ue000\uffff"
BOUNDARIES += "\U00010000\U0010ffff"
WIDTHS = {
    "one byte": "\xe9",
    "two bytes": "\u0142",
    "surrogates": "\ud83d\ude00",
    "four bytes": "\U0001f600",
    "four bytes and surrogates": "\U0001f600\udfff\ud800",
}
OUTPUTS = {
    "get_bfd_neighbor": "x\npeer {0}a is {0}b\n{0}K{0}: {0}v packets{0}\nLong {1}: {1}packets\n"
    "Local timers\nA{0}: 1{0}\n{0}B: {0}2\nC: {1}\nplain: value\n",
    "get_routing_table_result": "Routing entry for {0}/{1}\n{0}, distance {0}, metric {1}, best\n"
    "Last update {0} ago\n{0} {1}, via {0}\n{1}, {0}a b\n\n",
    "get_system_arp_result": "{0} Age\nAddress {0}\n{0} {1} c{0} d\n{1} b c {0}{1}\na b c d {0}\n",
}


@pytest.fixture(params=["none", "raises", "replaces"])
def error_handler(request: pytest.FixtureRequest) -> Iterator[None]:
    """Leaves the process's "surrogatepass" handler as it is, or registers another one."""
    handlers: dict[str, Any] = {
        "raises": raiser(AssertionError("the error handler was called")),
        "replaces": lambda error: ("?", error.end),
    }
    before = codecs.lookup_error("surrogatepass")
    codecs.register_error("surrogatepass", handlers.get(request.param, before))
    yield
    codecs.register_error("surrogatepass", before)


def result(parser: Any, function: str, output: str, monkeypatch: pytest.MonkeyPatch) -> Any:
    """Parse an output."""
    FakeCli(parser, monkeypatch).set_output(output)
    arguments: dict[str, tuple[object, ...]] = {
        "get_bfd_neighbor": ("c", {}),
        "get_routing_table_result": ("a",),
    }
    return getattr(parser, function)(*arguments.get(function, ()))


def strings(value: Any) -> Iterator[str]:
    """Every string in a result, keys included."""
    if isinstance(value, str):
        yield value
        return
    for item in value.items() if isinstance(value, dict) else value:
        yield from strings(item)


def ends_with_null(text: str) -> bool:
    """Tell whether the character that the interpreter stores after the last one is NUL."""
    widest = max(text, default="")
    width = 1 if widest < "\u0100" else 2 if widest < "\U00010000" else 4
    return ctypes.string_at(id(text), sys.getsizeof(text)).endswith(bytes(width))


@pytest.mark.usefixtures("error_handler")
@pytest.mark.parametrize("function", OUTPUTS)
@pytest.mark.parametrize("width", WIDTHS)
def test_text_of_each_width_parses_as_in_python(
    module: Any, monkeypatch: pytest.MonkeyPatch, function: str, width: str
) -> None:
    text = WIDTHS[width]
    for kind, repeat in ((str, 1), (str, 70), (StrSubclass, 1), (StrSubclass, 70)):
        output = kind(OUTPUTS[function].format(text, text * repeat))
        parsed = result(module, function, output, monkeypatch)
        assert parsed == result(reference, function, output, monkeypatch), (kind, repeat)
        assert any(text in each for each in strings(parsed))
        # A string that is stored wider than its characters need equals no other string.
        sizes = [(sys.getsizeof(each), sys.getsizeof("".join([*each]))) for each in strings(parsed)]
        assert [size for size, _ in sizes] == [size for _, size in sizes], (kind, repeat)
        assert all(map(ends_with_null, strings(parsed)))


@pytest.mark.usefixtures("error_handler")
@pytest.mark.parametrize("character", BOUNDARIES, ids=ascii)
def test_code_points_pass_through_unchanged(native_cli: FakeCli, character: str) -> None:
    for other in ("", "a", "\xe9", "\ud800", "\U0001f600"):
        words = [character + other, other + character, character * 3 + other, character * 70]
        rows = [" ".join(words), " ".join(reversed(words))]
        native_cli.set_output("\n".join(["Address", *rows]))
        listed = native_cli.parser.get_system_arp_result()
        assert [list(row.values()) for row in listed] == [row.split() for row in rows]


def test_no_string_stands_for_another_one(native_cli: FakeCli) -> None:
    """Short tables of texts of one length; some have the bytes of an unused field of a string."""
    for length in range(1, 10):
        words = [character * length for character in ("\xe9", "\0", "\u0142", "\x01", "a", "\xff")]
        for pair in itertools.permutations(words, 2):
            rows = [[word] * 4 for word in pair]
            native_cli.set_output("\n".join(["Address", *map(" ".join, rows)]))
            listed = native_cli.parser.get_system_arp_result()
            assert [list(row.values()) for row in listed] == rows


@pytest.mark.slow
def test_scanner_splits_at_white_space_of_str_isspace(native_cli: FakeCli) -> None:
    """Every code point but the line break stands between two letters of a row's first column."""
    for first in range(0, sys.maxunicode + 1, 0x1000):
        characters = [chr(point) for point in range(first, first + 0x1000) if point != ord("\n")]
        native_cli.set_output("Address", *(f"x{character}y 1 2 3" for character in characters))
        split = [row["ipAddress"] == "x" for row in native_cli.parser.get_system_arp_result()]
        assert split == [character.isspace() for character in characters]
