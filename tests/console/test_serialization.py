"""The console's way from JSON to arguments, and from what came back to JSON."""

from __future__ import annotations

import json
from typing import Any

import pytest
from hypothesis import given
from hypothesis import strategies as st

from veldarin_simulator.console import serialization
from veldarin_simulator.console.arguments import arguments
from veldarin_simulator.console.errors import Problem

FORMS = [
    # as JSON has it, the argument
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
]


@pytest.mark.parametrize(("form", "value"), FORMS)
def test_an_argument_is_what_its_form_says(form: Any, value: Any) -> None:
    positional, named = arguments({"arguments": [form], "keywords": {"name": form}})
    assert positional == [value]
    assert named == {"name": value}
    assert type(positional[0]) is type(value)


def test_both_kinds_of_arguments_may_be_left_out() -> None:
    assert arguments({}) == ([], {})


REFUSED = [
    ({"bytes": "\\q"}, "bytes: \\q at offset 0 is no escape of these bytes"),
    ({"bytes": "ab\\x4"}, "bytes: \\x at offset 2 is no escape"),
    ({"bytes": "end\\"}, "bytes: \\ at offset 3 is no escape"),
    ({"bytes": 7}, "bytes: a text is wanted"),
    ({"bytes": "\ud800"}, "half a surrogate pair"),
    ({"hex": "7"}, "hex: pairs of hexadecimal digits are wanted"),
    ({"hex": "zz"}, "hex: pairs of hexadecimal digits are wanted"),
    ({"hex": "ü"}, "hex: pairs of hexadecimal digits are wanted"),
    ({"base64": "dXNlcg"}, "base64: Base64 with its padding is wanted"),
    ({"base64": "dXNl*cg=="}, "base64: Base64 with its padding is wanted"),
    ({"base64": "dX*="}, "base64: Base64 with its padding is wanted"),
    ({"integer": "0x10"}, "integer: decimal digits are wanted"),
    ({"integer": "1_0"}, "integer: decimal digits are wanted"),
    ({"integer": "\u0667"}, "integer: decimal digits are wanted"),
    ({"integer": "9" * 1001}, "integer: decimal digits are wanted"),
    ({"integer": True}, "integer: decimal digits are wanted"),
    ({"integer": 1.0}, "integer: decimal digits are wanted"),
    ({"text": b"x"}, "text: a text is wanted"),
    ({}, "an object has one member"),
    ({"eval": "1"}, "an object has one member, which is one of bytes, hex, base64"),
    ({"text": "a", "bytes": "b"}, "an object has one member"),
]


@pytest.mark.parametrize(("form", "problem"), REFUSED, ids=[str(row[0])[:30] for row in REFUSED])
def test_what_has_not_its_form_is_refused_with_its_place(form: Any, problem: str) -> None:
    for body, at in (
        ({"arguments": [1, form]}, "arguments[1]"),
        ({"keywords": {"name": form}}, "keywords.name"),
    ):
        with pytest.raises(Problem) as refused:
            arguments(body)
        assert problem in str(refused.value)
        assert (refused.value.status, refused.value.where) == (400, {"at": at})


@pytest.mark.parametrize(
    "body", [{"arguments": {}}, {"arguments": "x"}, {"keywords": []}, {"argument": [1]}]
)
def test_a_body_of_another_form_is_refused(body: dict[str, Any]) -> None:
    with pytest.raises(Problem) as refused:
        arguments(body)
    assert refused.value.status == 400
    assert refused.value.where == {"at": next(iter(body))}


PROGRAMS = ["__import__('os').abort()", "1+1", "f'{1}'", "\\N{DIGIT ONE}", "%s", "${x}", "{0}"]


@pytest.mark.parametrize("program", PROGRAMS)
def test_nothing_is_evaluated(program: str) -> None:
    assert arguments({"arguments": [program, {"text": program}]})[0] == [program, program]
    if "\\" not in program:
        assert arguments({"arguments": [{"bytes": program}]})[0] == [program.encode()]
    with pytest.raises(Problem):
        arguments({"arguments": [{"integer": program}]})


@given(st.binary())
def test_bytes_that_are_shown_are_taken_again_as_they_were(content: bytes) -> None:
    shown = serialization.escaped(content)
    assert shown.isprintable()
    assert arguments({"arguments": [{"bytes": shown}]})[0] == [content]


@given(st.text(alphabet=st.characters(exclude_categories=["Cs"])))
def test_text_in_bytes_stays_readable(text: str) -> None:
    shown = serialization.escaped(text.encode())
    if text.isprintable() and "\\" not in text:
        assert shown == text


@pytest.mark.parametrize(
    ("value", "shown"),
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
def test_every_value_has_a_form_in_json(value: Any, shown: Any) -> None:
    assert serialization.plain(value) == shown
    assert json.loads(json.dumps(serialization.plain(value), allow_nan=False)) == shown


def test_a_result_says_its_type_and_how_python_writes_it() -> None:
    shown = serialization.result(b"a\0")
    assert shown == {"type": "bytes", "repr": "b'a\\x00'", "value": "a\\x00"}


def test_what_is_shown_is_a_copy() -> None:
    value = {"a": [1]}
    shown = serialization.result(value)
    value["a"].append(2)
    assert shown["value"] == {"a": [1]}
