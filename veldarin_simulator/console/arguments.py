r"""Decodes the JSON of a request into the arguments of a call, without evaluating anything.

An argument is a JSON value that stands for itself (a string, a number, true, false, null, a list)
or an object with one member that names an encoding:

    {"bytes": "user\\x00"}     bytes: UTF-8 with the escapes \xHH, \n, \r, \t, \0 and \\
    {"hex": "75 73 65 72"}     bytes in hexadecimal
    {"base64": "dXNlcg=="}     bytes in Base64
    {"integer": "4294967296"}  an integer of any size
    {"text": "user"}           a string
    {"json": {"a": [1]}}       any JSON value, for example a dictionary
"""

from __future__ import annotations

import base64
import binascii
import re
from collections.abc import Callable
from typing import Any

from veldarin_simulator.console.errors import ApiError

_ESCAPE = re.compile(r"\\(?:x([0-9a-fA-F]{2})|([nrt0\\])|(.?))", re.DOTALL)
_LETTERS = {"n": b"\n", "r": b"\r", "t": b"\t", "0": b"\0", "\\": b"\\"}
_INTEGER = re.compile(r"[+-]?[0-9]{1,1000}")


def decode_call(body: dict[str, Any]) -> tuple[list[Any], dict[str, Any]]:
    """Decode the body of a call: {"arguments": [...], "keywords": {...}}, each optional.

    Returns:
        The positional and the keyword arguments.

    Raises:
        ApiError: The body or an argument is malformed.
    """
    positional, keywords = body.get("arguments", []), body.get("keywords", {})
    if not isinstance(positional, list):
        raise ApiError(400, '"arguments" must be a list', at="arguments")
    if not isinstance(keywords, dict):
        raise ApiError(400, '"keywords" must be an object', at="keywords")
    for key in body.keys() - {"arguments", "keywords"}:
        raise ApiError(400, 'a call takes only "arguments" and "keywords"', at=key)
    return (
        [_decode(value, f"arguments[{index}]") for index, value in enumerate(positional)],
        {name: _decode(value, f"keywords.{name}") for name, value in keywords.items()},
    )


def _decode(value: Any, at: str) -> Any:
    if not isinstance(value, dict):
        return value
    if len(value) != 1 or next(iter(value)) not in _DECODERS:
        detail = f"an object must have exactly one member, one of {', '.join(_DECODERS)}"
        raise ApiError(400, detail, at=at)
    ((encoding, content),) = value.items()
    try:
        return _DECODERS[encoding](content)
    except ValueError as error:
        raise ApiError(400, f"{encoding}: {error}", at=at) from error


def _decode_text(content: Any) -> str:
    if not isinstance(content, str):
        raise ValueError("expected a string")
    return content


def _decode_bytes(content: Any) -> bytes:
    """Decode the output of `serialization.encode_bytes`, or what a person typed."""
    text = _decode_text(content)
    parts, end = [], 0
    for match in _ESCAPE.finditer(text):
        code, letter, other = match.groups()
        if other is not None:
            raise ValueError(f"invalid escape \\{other} at offset {match.start()}")
        parts.append(encode_utf8(text[end : match.start()]))
        parts.append(bytes.fromhex(code) if code else _LETTERS[letter])
        end = match.end()
    return b"".join([*parts, encode_utf8(text[end:])])


def encode_utf8(text: str) -> bytes:
    """Encode a string of a request, which may contain lone surrogates.

    Raises:
        ValueError: It does.
    """
    try:
        return text.encode()
    except UnicodeEncodeError as error:
        raise ValueError("lone surrogates are not allowed") from error


def _decode_hex(content: Any) -> bytes:
    digits = "".join(_decode_text(content).split())
    try:
        return binascii.unhexlify(digits)
    except ValueError as error:
        raise ValueError("expected pairs of hexadecimal digits") from error


def _decode_base64(content: Any) -> bytes:
    text = "".join(_decode_text(content).split())
    try:
        return base64.b64decode(text, validate=True)
    except ValueError as error:
        raise ValueError("expected padded Base64") from error


def _decode_integer(content: Any) -> int:
    if type(content) is int:
        return content
    return parse_integer(content.strip() if isinstance(content, str) else "")


def parse_integer(text: str) -> int:
    """Convert decimal digits; a limit bounds the time, which grows with the square of their number.

    Raises:
        ValueError: The text is something else, or too long.
    """
    if not _INTEGER.fullmatch(text):
        raise ValueError("expected at most 1000 decimal digits")
    return int(text)


_DECODERS: dict[str, Callable[[Any], Any]] = {
    "bytes": _decode_bytes,
    "hex": _decode_hex,
    "base64": _decode_base64,
    "integer": _decode_integer,
    "text": _decode_text,
    "json": lambda content: content,
}
