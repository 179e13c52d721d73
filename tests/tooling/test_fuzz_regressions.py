"""Inputs of `make fuzz`: the corpus that reaches every known edge, and inputs that once made the
module differ from the reference model or made a sanitizer report."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import pytest

from checks.fuzz.differential import Comparison
from checks.fuzz.input_format import FUNCTIONS, decode, encode
from tests.support import isolated, reference
from tests.support.doubles import StrSubclass
from tests.support.isolated import ROOT

FUZZ = ROOT / "checks" / "fuzz"
CORPUS = sorted(FUZZ.glob("corpus/parsers/*"))
FOUND = sorted(FUZZ.glob("crashes/parsers/*"))
TEXTS = sorted(FUZZ.glob("*/text/*"))


@pytest.fixture
def comparison(build: None) -> Iterator[Comparison]:
    with Comparison() as comparison:
        yield comparison


@pytest.mark.parametrize("file", [*CORPUS, *FOUND], ids=lambda file: file.name)
def test_module_and_reference_agree_on_corpus(comparison: Comparison, file: Path) -> None:
    comparison.check(file.read_bytes())


def test_corpus_covers_functions_in_both_charsets() -> None:
    samples = [decode(file.read_bytes()) for file in CORPUS]
    assert {(each.function, each.charset) for each in samples} == {
        (function, charset)
        for function, _has_argument in FUNCTIONS.values()
        for charset in ("utf-8", "tricky")
    }


def test_text_layer_passes_its_corpus() -> None:
    """Run in a new process, which ends at the first failed check with a message."""

    def go_through(library: str, files: list[str]) -> int:
        import ctypes
        from pathlib import Path

        target = ctypes.PyDLL(library).LLVMFuzzerTestOneInput
        inputs = [Path(file).read_bytes() for file in files]
        return sum(target(each, ctypes.c_size_t(len(each))) == 0 for each in inputs)

    assert len(TEXTS) > 20
    files = [str(file) for file in TEXTS]
    assert isolated.value(go_through, str(isolated.BUILD / "libfuzz_text.so"), files) == len(files)


# The comparison itself: a difference of each kind is seen.


ARP = encode(b"A", b"Address\na b c d\n")
SESSION = encode(b"B", b"echo\npeer a b c\npeer d e f\n")


def with_another_key_order(result: list[dict[str, str]]) -> list[dict[str, str]]:
    return [dict(reversed(row.items())) for row in result]


@pytest.mark.parametrize(
    "altered",
    [
        with_another_key_order,
        lambda result: tuple(result),
        lambda result: [{**row, "age": row["age"] + " "} for row in result],
        lambda result: [],
    ],
    ids=["order of keys", "type", "value", "row"],
)
def test_differing_value_is_detected(
    comparison: Comparison, monkeypatch: pytest.MonkeyPatch, altered: object
) -> None:
    assert callable(altered)
    right = reference.get_system_arp_result
    comparison.check(ARP)
    monkeypatch.setattr(reference, "get_system_arp_result", lambda: altered(right()))
    with pytest.raises(AssertionError, match="expected: "):
        comparison.check(ARP)


def test_subclass_of_str_is_detected(
    comparison: Comparison, monkeypatch: pytest.MonkeyPatch
) -> None:
    right = reference.get_system_arp_result
    monkeypatch.setattr(
        reference,
        "get_system_arp_result",
        lambda: [{**row, "age": StrSubclass(row["age"])} for row in right()],
    )
    with pytest.raises(ValueError, match="unmarshallable object"):
        comparison.check(ARP)


@pytest.mark.parametrize(
    "error", [IndexError("another text"), KeyError("list index out of range")], ids=["text", "type"]
)
def test_differing_exception_is_detected(
    comparison: Comparison, monkeypatch: pytest.MonkeyPatch, error: Exception
) -> None:
    def fails() -> None:
        raise error

    comparison.check(encode(b"A", b"no header"))
    monkeypatch.setattr(reference, "get_system_arp_result", fails)
    with pytest.raises(AssertionError, match="list index out of range"):
        comparison.check(encode(b"A", b"no header"))


def test_missing_log_line_is_detected(
    comparison: Comparison, monkeypatch: pytest.MonkeyPatch
) -> None:
    comparison.check(SESSION)
    monkeypatch.setattr(comparison.expected.log, "debug", lambda text: None)
    with pytest.raises(AssertionError, match="argument of type 'type' is not iterable"):
        comparison.check(SESSION)
