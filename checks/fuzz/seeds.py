"""Seed inputs: recorded outputs, generated ones, and those of the tests."""

from __future__ import annotations

from collections.abc import Iterator
from hashlib import sha1
from pathlib import Path

from benchmarks import cli_samples
from benchmarks.cli_samples import Variant
from checks.fuzz import tricky_codec
from checks.fuzz.input_format import FUNCTIONS, encode
from tests.support.call_cases import CASES
from tests.support.isolated import ROOT

Seed = tuple[bytes, "list[str | bytes | None]"]  # a letter of FUNCTIONS, the fields


def write(folder: Path) -> None:
    """Write every seed in both charsets."""
    for letter, fields in [*_recorded(), *_generated(), *_from_cases()]:
        for first, charset, errors in (
            (letter, "utf-8", "surrogatepass"),
            (letter.lower(), tricky_codec.NAME, "replace"),
        ):
            encoded = (
                field.encode(charset, errors) if isinstance(field, str) else field
                for field in fields
            )
            data = encode(first, *encoded)
            (folder / sha1(data).hexdigest()).write_bytes(data)


def _recorded() -> Iterator[Seed]:
    files = [
        *ROOT.glob("tests/data/cli_output/*.txt"),
        *ROOT.glob("veldarin_simulator/scenarios/*/cli/*bfd*"),
    ]
    for file in sorted(files):
        text = file.read_text()
        yield b"B", [text]
        yield b"B", [text, text.replace("up", "down")]
        yield b"L", [text, "", text, ""]
        yield b"L", [text, text]


def _generated() -> Iterator[Seed]:
    for variant in Variant:
        yield b"A", [cli_samples.arp(3, variant)]
        yield b"R", ["192.0.2.7", cli_samples.routing(3, variant)]
        yield b"B", [cli_samples.bfd(20, variant)]
    yield b"L", [cli_samples.bfd_session(number) for number in (1, 2, 1)]
    yield b"C", ["get system status", cli_samples.output(300, prompts=True)]
    yield b"C", ["x" * 200, "--More----More--"]
    yield b"C", [None, "text"]
    for letter in FUNCTIONS:
        yield letter, ["", None]
        yield letter, [None, ""]


def _from_cases() -> Iterator[Seed]:
    letters = {function: letter for letter, (function, _has_argument) in FUNCTIONS.items()}
    for case in CASES:
        letter = letters.get(case.function)
        if letter is not None and (case.cli is None or isinstance(case.cli, (str, bytes))):
            argument = case.args[0] if case.args and isinstance(case.args[0], str) else ""
            yield letter, [argument, case.cli] if FUNCTIONS[letter][1] else [case.cli]
