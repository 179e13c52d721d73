"""Inputs to begin with: texts of real command lines, and those that the tests know of."""

from __future__ import annotations

from collections.abc import Iterator
from hashlib import sha1
from pathlib import Path

from benchmarks import cli_samples
from benchmarks.cli_samples import Variant
from checks.fuzz import tricky_codec
from checks.fuzz.input_format import FUNCTIONS, written
from tests.support.call_cases import CASES
from tests.support.isolated import ROOT

_LETTERS = {function: letter for letter, (function, _has_argument) in FUNCTIONS.items()}


def write(folder: Path) -> None:
    """Every seed as a file of the folder."""
    folder.mkdir(parents=True, exist_ok=True)
    for data in _seeds():
        (folder / sha1(data).hexdigest()).write_bytes(data)


def _seeds() -> Iterator[bytes]:
    for letter, *pieces in [*_captured(), *_made_up(), *_of_cases()]:
        assert isinstance(letter, bytes)
        yield written(letter, *(None if piece is None else _utf_8(piece) for piece in pieces))
        yield written(
            letter.lower(), *(None if piece is None else _tricky(piece) for piece in pieces)
        )


def _utf_8(piece: str | bytes) -> bytes:
    return piece if isinstance(piece, bytes) else piece.encode("utf-8", "surrogatepass")


def _tricky(piece: str | bytes) -> bytes:
    return piece if isinstance(piece, bytes) else piece.encode(tricky_codec.NAME, "replace")


_Pieces = Iterator["tuple[str | bytes | None, ...]"]


def _captured() -> _Pieces:
    captures = [
        *ROOT.glob("tests/data/cli_output/*.txt"),
        *ROOT.glob("veldarin_simulator/scenarios/*/cli/*bfd*"),
    ]
    for capture in sorted(captures):
        text = capture.read_text()
        yield b"B", text
        yield b"B", text, text.replace("up", "down")
        yield b"L", text, "", text, ""
        yield b"L", text, text


def _made_up() -> _Pieces:
    for variant in Variant:
        yield b"A", cli_samples.arp(3, variant)
        yield b"R", "192.0.2.7", cli_samples.routing(3, variant)
        yield b"B", cli_samples.bfd(20, variant)
        yield (
            b"L",
            cli_samples.bfd_session(1),
            cli_samples.bfd_session(2),
            cli_samples.bfd_session(1),
        )
    yield b"C", "get system status", cli_samples.output(300, prompts=True)
    yield b"C", "x" * 200, "--More----More--"
    yield b"C", None, "text"
    for letter in FUNCTIONS:
        yield letter, "", None
        yield letter, None, ""


def _of_cases() -> _Pieces:
    for case in CASES:
        letter = _LETTERS.get(case.function)
        if letter is not None and (case.cli is None or isinstance(case.cli, (str, bytes))):
            argument = case.args[0] if case.args and isinstance(case.args[0], str) else ""
            yield (letter, argument, case.cli) if letter in (b"R", b"C") else (letter, case.cli)
