"""Decoding of arguments, encoding of results."""

from __future__ import annotations

import json
from typing import Any

import pytest
from hypothesis import given
from hypothesis import strategies as st

from veldarin_simulator.console import serialization
from veldarin_simulator.console.arguments import decode_call
from veldarin_simulator.console.errors import ApiError


def decode(argument: Any) -> Any:
    ((decoded,), _) = decode_call({"arguments": [argument]})
    return decoded


@pytest.mark.parametrize(
    ("argument", "value"),
    [
        (None, None),
        (True, True),
        (7, 7),
        (1.5, 1.5),
        ("port1", "port1"),
        ("", ""),
        ([1, "a", None], [1, "a", None]),
        ({"text": "port1"}, "port1"),
        ({"bytes": "user"}, b"user"),
        ({"bytes": ""}, b""),
        ({"bytes": "a\\x00\\xFF\\n\\r\\t\\0\\\\x41"}, b"a\0\xff\n\r\t\0\\x41"),
        ({"bytes": "grüße"}, "grüße".encode()),
        ({"hex": "75 73\n65 72"}, b"user"),
        ({"hex": ""}, b""),
        ({"base64": "dXNlcg=="}, b"user"),
        ({"integer": 7}, 7),
        ({"integer": " -18446744073709551616 "}, -(2**64)),
        ({"json": {"a": [1, None]}}, {"a": [1, None]}),
        ({"json": {"bytes": "x"}}, {"bytes": "x"}),
    ],
)
def test_argument_is_decoded_by_position_and_by_name(argument: Any, value: Any) -> None:
    decoded = decode_call({"arguments": [argument], "keywords": {"name": argument}})
    assert decoded == ([value], {"name": value})
    assert type(decoded[0][0]) is type(value)


def test_arguments_and_keywords_are_optional() -> None:
    assert decode_call({}) == ([], {})


INVALID = [
    ({"bytes": "\\q"}, "bytes: invalid escape \\q at offset 0"),
    ({"bytes": "ab\\x4"}, "bytes: invalid escape \\x at offset 2"),
    ({"bytes": "end\\"}, "bytes: invalid escape \\ at offset 3"),
    ({"bytes": 7}, "bytes: expected a string"),
    ({"bytes": "\ud800"}, "bytes: lone surrogates are not allowed"),
    ({"hex": "7"}, "hex: expected pairs of hexadecimal digits"),
    ({"hex": "zz"}, "hex: expected pairs of hexadecimal digits"),
    ({"hex": "ü"}, "hex: expected pairs of hexadecimal digits"),
    ({"base64": "dXNlcg"}, "base64: expected padded Base64"),
    ({"base64": "dXNl*cg=="}, "base64: expected padded Base64"),
    ({"base64": "dX*="}, "base64: expected padded Base64"),
    ({"base64": "ü"}, "base64: expected padded Base64"),
    ({"integer": "0x10"}, "integer: expected at most 1000 decimal digits"),
    ({"integer": "1_0"}, "integer: expected at most 1000 decimal digits"),
    ({"integer": "\u0667"}, "integer: expected at most 1000 decimal digits"),
    ({"integer": "9" * 1001}, "integer: expected at most 1000 decimal digits"),
    ({"integer": True}, "integer: expected at most 1000 decimal digits"),
    ({"integer": 1.0}, "integer: expected at most 1000 decimal digits"),
    ({"text": b"x"}, "text: expected a string"),
    ({}, "an object must have exactly one member"),
    ({"eval": "1"}, "an object must have exactly one member, one of bytes, hex, base64"),
    ({"text": "a", "bytes": "b"}, "an object must have exactly one member"),
]


@pytest.mark.parametrize(("argument", "detail"), INVALID, ids=[str(row[0])[:30] for row in INVALID])
def test_invalid_argument_is_rejected_with_its_place(argument: Any, detail: str) -> None:
    for body, at in (
        ({"arguments": [1, argument]}, "arguments[1]"),
        ({"keywords": {"name": argument}}, "keywords.name"),
    ):
        with pytest.raises(ApiError) as rejected:
            decode_call(body)
        assert detail in rejected.value.detail
        assert (rejected.value.status, rejected.value.extra) == (400, {"at": at})


@pytest.mark.parametrize(
    "program",
    ["__import__('os').abort()", "1+1", "f'{1}'", "\\N{DIGIT ONE}", "%s", "${x}", "{0}"],
)
def test_argument_is_not_evaluated(program: str) -> None:
    assert decode(program) == decode({"text": program}) == program
    if "\\" not in program:
        assert decode({"bytes": program}) == program.encode()
    with pytest.raises(ApiError):
        decode({"integer": program})


@given(st.binary())
def test_encoded_bytes_decode_to_the_same_bytes(content: bytes) -> None:
    encoded = serialization.encode_bytes(content)
    assert encoded.isprintable()
    assert decode({"bytes": encoded}) == content


@given(st.text(alphabet=st.characters(exclude_categories=["Cs"])))
def test_printable_text_in_bytes_is_encoded_as_itself(text: str) -> None:
    encoded = serialization.encode_bytes(text.encode())
    if text.isprintable() and "\\" not in text:
        assert encoded == text


@pytest.mark.parametrize(
    ("value", "encoded"),
    [
        (b"a\xff", "a\\xff"),
        ((1, [b"x"]), [1, ["x"]]),
        ({"a": {1: float("inf")}}, {"a": {"1": "inf"}}),
        (float("nan"), "nan"),
        (2**70, 2**70),
        ("\ud800", "\ud800"),
        ({1, 2}, "{1, 2}"),
    ],
)
def test_every_value_can_be_encoded_as_json(value: Any, encoded: Any) -> None:
    assert serialization.to_json(value) == encoded
    assert json.loads(json.dumps(serialization.to_json(value), allow_nan=False)) == encoded


def test_result_contains_type_repr_and_a_copy_of_the_value() -> None:
    assert serialization.encode_result(b"a\0") == {
        "type": "bytes",
        "repr": "b'a\\x00'",
        "value": "a\\x00",
    }
    value = {"a": [1]}
    encoded = serialization.encode_result(value)
    value["a"].append(2)
    assert encoded["value"] == {"a": [1]}
