"""A single-byte codec for fuzzing: ASCII and 128 characters that parsers tend to mishandle.

Few random byte strings are valid UTF-8. With this codec every byte is a character, and the strings
have one, two or four bytes per character.
"""

from __future__ import annotations

import codecs
from typing import Any

NAME = "tricky"

_SPACES = "\x85\xa0\u1680\u2000\u2001\u2002\u2003\u2009\u200a\u2028\u2029\u202f\u205f\u3000"
_NOT_QUITE_SPACES = "\u200b\u180e\ufeff\xad\u2060"
# Lower case is longer, shorter, depends on the neighbors, or lies outside the BMP.
_CASED = "\u0130\u0131\u03a3\u03c3\u03c2\xdf\u1e9e\u01c5\u0345\u0307\u2126\u212a\xc0\xd6\xde\xe9"
_CASED += "\u0100\u0178\u0391\u0416\uff21\U00010400\U00010428\U0001e900\U000118a0"
# The low byte is a character that the parsers look for.
_ALIASES = "".join(chr(0x100 + ord(each)) + chr(0x10000 + ord(each)) for each in "\n\r\t :,-pARL")
_BOUNDARIES = "\x80\xff\u0101\ud800\udbff\udc00\udfff\ufffd\ufffe\uffff"
_BOUNDARIES += "\U00010000\U0010ffff\U0001f600"
_UPPER = _SPACES + _NOT_QUITE_SPACES + _CASED + _ALIASES + _BOUNDARIES

_LOWER = "".join(map(chr, range(128)))
_TABLE = (_LOWER + _UPPER.ljust(128, "\xb5"))[:256]
_MAP = codecs.charmap_build(_TABLE)


def _encode(text: str, errors: str = "strict") -> tuple[bytes, int]:
    return codecs.charmap_encode(text, errors, _MAP)


def _decode(data: Any, errors: str = "strict") -> tuple[str, int]:
    return codecs.charmap_decode(data, errors, _TABLE)  # type: ignore[arg-type]


def _search(name: str) -> codecs.CodecInfo | None:
    return codecs.CodecInfo(_encode, _decode, name=NAME) if name == NAME else None


codecs.register(_search)
