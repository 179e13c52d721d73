"""From the JSON of a request to the arguments of a call. Nothing is evaluated: each form is read by
its own small rule.

An argument is a JSON value that stands for itself (a text, a number, true, false, null, a list), or
an object with one member that says what it is:

    {"bytes": "user\\x00"}    bytes: UTF-8 text with the escapes \\xHH, \\n, \\r, \\t, \\0 and \\\\
    {"hex": "75 73 65 72"}    bytes in hexadecimal
    {"base64": "dXNlcg=="}    bytes in Base64
    {"integer": "4294967296"} an integer of any size
    {"text": "user"}          a text
    {"json": {"a": [1]}}      any JSON value, a dictionary for one
"""

from __future__ import annotations

import base64
import binascii
import re
from collections.abc import Callable
from typing import Any

from veldarin_simulator.console.errors import Problem

_ESCAPE = re.compile(r"\\(?:x([0-9a-fA-F]{2})|([nrt0\\])|(.?))", re.DOTALL)
_LETTERS = {"n": b"\n", "r": b"\r", "t": b"\t", "0": b"\0", "\\": b"\\"}
_INTEGER = re.compile(r"[+-]?[0-9]{1,1000}")


def arguments(body: dict[str, Any]) -> tuple[list[Any], dict[str, Any]]:
    """Positional and keyword arguments of a request: {"arguments": [...], "keywords": {...}}, both
    of which may be left out. Raises `Problem`."""
    positional, named = body.get("arguments", []), body.get("keywords", {})
    if not isinstance(positional, list):
        raise Problem(400, '"arguments" is a list', at="arguments")
    if not isinstance(named, dict):
        raise Problem(400, '"keywords" is an object', at="keywords")
    for key in body.keys() - {"arguments", "keywords"}:
        raise Problem(400, 'a call has "arguments" and "keywords" only', at=key)
    return (
        [_value(given, f"arguments[{place}]") for place, given in enumerate(positional)],
        {name: _value(given, f"keywords.{name}") for name, given in named.items()},
    )


def _value(given: Any, at: str) -> Any:
    if not isinstance(given, dict):
        return given
    if len(given) != 1 or next(iter(given)) not in _FORMS:
        problem = f"an object has one member, which is one of {', '.join(_FORMS)}"
        raise Problem(400, problem, at=at)
    ((form, content),) = given.items()
    try:
        return _FORMS[form](content)
    except ValueError as error:
        raise Problem(400, f"{form}: {error}", at=at) from error


def _text(content: Any) -> str:
    if not isinstance(content, str):
        raise ValueError("a text is wanted")
    return content


def _escaped(content: Any) -> bytes:
    """The bytes that `showing.escaped` wrote, or a person."""
    text = _text(content)
    parts, end = [], 0
    for found in _ESCAPE.finditer(text):
        code, letter, other = found.groups()
        if other is not None:
            shown = f"\\{other}"
            raise ValueError(f"{shown} at offset {found.start()} is no escape of these bytes")
        parts.append(_encoded(text[end : found.start()]))
        parts.append(bytes.fromhex(code) if code else _LETTERS[letter])
        end = found.end()
    return b"".join([*parts, _encoded(text[end:])])


def _encoded(text: str) -> bytes:
    try:
        return text.encode()
    except UnicodeEncodeError as error:
        raise ValueError("half a surrogate pair is no character") from error


def _hexadecimal(content: Any) -> bytes:
    digits = "".join(_text(content).split())
    try:
        return binascii.unhexlify(digits)
    except ValueError as error:
        raise ValueError("pairs of hexadecimal digits are wanted") from error


def _base64(content: Any) -> bytes:
    try:
        return base64.b64decode("".join(_text(content).split()), validate=True)
    except ValueError as error:
        raise ValueError("Base64 with its padding is wanted") from error


def _integer(content: Any) -> int:
    if type(content) is int:
        return content
    if not isinstance(content, str) or not _INTEGER.fullmatch(content.strip()):
        raise ValueError("decimal digits are wanted, 1000 at most")
    return int(content)


def _itself(content: Any) -> Any:
    return content


_FORMS: dict[str, Callable[[Any], Any]] = {
    "bytes": _escaped,
    "hex": _hexadecimal,
    "base64": _base64,
    "integer": _integer,
    "text": _text,
    "json": _itself,
}
