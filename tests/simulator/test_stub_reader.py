"""The reader of the type stub, and the command-line arguments that it decodes."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Any

import pytest

from tests.support.function_table import FUNCTIONS
from veldarin_simulator import stub
from veldarin_simulator.cli import common

STUB = """
def one(path: bytes, /) -> bool: ...
def text(name: str | None, /) -> object: ...
def anything(value: object = None) -> object: ...
def two(profile_name: str | None, event: str | None) -> object: ...
def bare(value): ...
"""


@pytest.mark.parametrize(
    ("function", "texts", "positional", "keywords"),
    [
        ("one", ["/etc/x"], [b"/etc/x"], {}),
        ("one", ["user=/etc/x"], [b"user=/etc/x"], {}),
        ("one", [os.fsdecode(b"\xff")], [b"\xff"], {}),
        ("one", ["None"], [None], {}),
        ("one", [""], [b""], {}),
        ("one", ["7"], [b"7"], {}),
        ("one", [], [], {}),
        ("text", ["7"], ["7"], {}),
        ("text", ["null"], [None], {}),
        ("text", ["true"], ["true"], {}),
        ("anything", ["7"], [7], {}),
        ("anything", ['"7"'], ["7"], {}),
        ("anything", ["true"], [True], {}),
        ("anything", ['{"a": [1, null]}'], [{"a": [1, None]}], {}),
        ("anything", ["port 1"], ["port 1"], {}),
        ("anything", ["[" * 100_000], ["[" * 100_000], {}),
        ("anything", ["value=7"], [], {"value": 7}),
        ("anything", ["value=None"], [], {"value": None}),
        ("anything", ["other=7"], ["other=7"], {}),
        ("anything", ["1", "2", "x"], [1, 2, "x"], {}),
        ("two", ["p", "event=Stop"], ["p"], {"event": "Stop"}),
        ("two", ["event=a=b", "p"], ["p"], {"event": "a=b"}),
        ("bare", ["1"], [1], {}),
    ],
)
def test_arguments_follow_the_declared_types(
    function: str, texts: list[str], positional: list[Any], keywords: dict[str, Any]
) -> None:
    arguments = stub.parse(STUB).functions[function].arguments(texts)
    assert arguments == (positional, keywords)
    assert [type(value) for value in arguments[0]] == [type(value) for value in positional]


def test_stub_declares_the_function_table() -> None:
    declared = stub.functions()
    assert list(declared) == [function.name for function in FUNCTIONS]
    for function in FUNCTIONS:
        parameters = declared[function.name].parameters
        assert [p.name for p in parameters] == [p.name for p in function.parameters]
        for parameter, expected in zip(parameters, function.parameters):
            assert parameter.keyword == (function.kind == "keywords")
            if expected.type is not None:
                assert parameter.types == {expected.type.__name__}


def test_stub_without_functions_exits_1(
    capsys: pytest.CaptureFixture[str], tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    empty = tmp_path / "empty.pyi"
    empty.write_text("")
    monkeypatch.setattr(stub.functions, "__defaults__", (empty,))
    with pytest.raises(SystemExit):
        common.load_functions()
    assert capsys.readouterr().err == f"veldarin_simulator: {empty}: declares no function\n"
