"""What the bytes of an input mean: a function, its argument, and what the appliance prints.

The first byte is a letter of `FUNCTIONS`: a capital has the texts in UTF-8, a small one in the
character set of characters.py. The rest is in pieces with 0xFF, which no UTF-8 has, between them:
the argument, for a function that takes one, and what each command prints in turn, from the
beginning again when the pieces run out. A piece that is the one byte 0xFE stands for `None`, or
for a command line that hands back nothing.
"""

from __future__ import annotations

from typing import NamedTuple

from checks.fuzz import tricky_codec

# By letter; and whether the first piece is an argument.
FUNCTIONS = {
    b"A": ("get_system_arp_result", False),
    b"R": ("get_routing_table_result", True),
    b"B": ("get_bfd_neighbor", False),
    b"L": ("list_bfd_neighbor", False),
    b"C": ("get_cli_command_output", True),
}
_LETTERS = b"".join(FUNCTIONS) + b"".join(FUNCTIONS).lower()
_BETWEEN = b"\xff"
_NOTHING = b"\xfe"


class Sample(NamedTuple):
    """An input, read."""

    function: str
    charset: str
    argument: str | None
    outputs: list[bytes | None]


def read(data: bytes) -> Sample:
    """The meaning of any bytes."""
    first = data[0] if data else 0
    letter = bytes([first if first in _LETTERS else _LETTERS[first % len(_LETTERS)]])
    function, has_argument = FUNCTIONS[letter.upper()]
    charset = "utf-8" if letter.isupper() else tricky_codec.NAME
    pieces = [None if piece == _NOTHING else piece for piece in data[1:].split(_BETWEEN)]
    given = pieces.pop(0) if has_argument else b""
    argument = None if given is None else given.decode(charset, "surrogateescape")
    return Sample(function, charset, argument, pieces or [b""])


def written(letter: bytes, *pieces: bytes | None) -> bytes:
    """The bytes of an input."""
    return letter + _BETWEEN.join(_NOTHING if piece is None else piece for piece in pieces)
