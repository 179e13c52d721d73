"""The format of an input: a function, its argument, and the output of the command line.

The first byte is a letter of `FUNCTIONS`: upper case for UTF-8, lower case for the tricky codec.
0xFF, which UTF-8 never contains, separates the fields after it: the argument, if the function takes
one, and the outputs of the commands, which repeat when they run out. Only the first eight outputs
count. A field 0xFE is `None`: a null argument, or a command without output.
"""

from __future__ import annotations

from typing import NamedTuple

from checks.fuzz import tricky_codec

# The letter's function, and whether the first field is its argument.
FUNCTIONS = {
    b"A": ("get_system_arp_result", False),
    b"R": ("get_routing_table_result", True),
    b"B": ("get_bfd_neighbor", False),
    b"L": ("list_bfd_neighbor", False),
    b"C": ("get_cli_command_output", True),
}
_LETTERS = b"".join(FUNCTIONS) + b"".join(FUNCTIONS).lower()
_SEPARATOR = b"\xff"
_NONE = b"\xfe"
_MAX_OUTPUTS = 8  # the lists of both address families, and the details of three sessions


class Sample(NamedTuple):
    """A decoded input."""

    function: str
    charset: str
    argument: str | None
    outputs: list[bytes | None]


def decode(data: bytes) -> Sample:
    """Decode an input; every byte string is valid."""
    first = data[0] if data else 0
    letter = bytes([first if first in _LETTERS else _LETTERS[first % len(_LETTERS)]])
    function, has_argument = FUNCTIONS[letter.upper()]
    charset = "utf-8" if letter.isupper() else tricky_codec.NAME
    fields = [None if field == _NONE else field for field in data[1:].split(_SEPARATOR)]
    encoded = fields.pop(0) if has_argument else b""
    argument = None if encoded is None else encoded.decode(charset, "surrogateescape")
    return Sample(function, charset, argument, fields[:_MAX_OUTPUTS] or [b""])


def encode(letter: bytes, *fields: bytes | None) -> bytes:
    """Encode an input."""
    return letter + _SEPARATOR.join(_NONE if field is None else field for field in fields)
