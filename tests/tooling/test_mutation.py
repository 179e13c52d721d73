"""Mutation testing: the mutants of a small source, the table of a run, and the list of equivalent
mutants."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import pytest

from checks.mutation.__main__ import (
    EQUIVALENT,
    Run,
    check_equivalent,
    read_equivalent,
    read_sources,
    report,
)
from checks.mutation.mutants import generate

FILE = "sample.cpp"
SOURCE = """\
#include <vector>
// a < b stays in a comment
const char text[] = "text";
constexpr Row rows[] = {
    {id::one, true },
    {id::two, false},
};
Ref limit(int value, Ref *result) {
    if (value < 10 && result) return {};
    *result = Ref::steal(make(0x1F));
    release(result);
    const Ref kept = Ref::borrow(value ? first : second);
    return fail(at::limit);
}
"""
CHANGES = {
    'const char text[] = "text"; ==> const char text[] = "tex";',
    "{id::one, true }, ==> ",
    "{id::one, true }, {id::two, false}, ==> {id::two, false}, {id::one, true },",
    "{id::one, true }, ==> {id::one, false },",
    "{id::one, true }, ==> {id::two, true },",
    "{id::two, false}, ==> ",
    "{id::two, false}, ==> {id::one, false},",
    "{id::two, false}, ==> {id::two, true},",
    *(
        f"if (value < 10 && result) return {{}}; ==> {new}"
        for new in (
            "if (!(value < 10 && result)) return {};",
            "if (value <= 10 && result) return {};",
            "if (value >= 10 && result) return {};",
            "if (value < 9 && result) return {};",
            "if (value < 10 || result) return {};",
            "if (value < 10 && result) ;",
        )
    ),
    *(
        f"*result = Ref::steal(make(0x1F)); ==> {new}"
        for new in (
            ";",
            "*result = Ref::borrow(make(0x1F));",
            "*result = Ref::steal(make(0x1e));",
            "*result = Ref::steal(make(0x20));",
        )
    ),
    "release(result); ==> ;",
    *(
        f"const Ref kept = Ref::borrow(value ? first : second); ==> {new}"
        for new in (
            ";",
            "const Ref kept = Ref::steal(value ? first : second);",
            "const Ref kept = Ref::borrow(value ? (second) : (first));",
        )
    ),
    "return fail(at::limit); ==> return fail(at::limit + 1);",
}
MUTANTS = generate(FILE, SOURCE)


class FakeWorker:
    """A worker whose tests kill all mutants but one; it does not build."""

    def __init__(self, survivor: str) -> None:
        self.survivor = survivor
        self.first: list[str] = []

    def build(self, mutant: Any, source: str) -> str | None:
        if "make(0x" in mutant.new:
            return None
        return "" if mutant.new == "false" else mutant.name

    def test(self, mutant: Any, source: str, first: list[str]) -> str | None:
        self.first = first
        return None if mutant.name == self.survivor else "crash: tests/module/test_x.py::test_x"


@pytest.fixture
def run(tmp_path: Path) -> Run:
    return Run(MUTANTS, {FILE: SOURCE}, tmp_path / "results")


def test_generator_makes_each_change_once() -> None:
    names = [mutant.name for mutant in MUTANTS]
    assert {name.replace(f"{FILE}: ", "", 1) for name in names} == CHANGES
    assert len(set(names)) == len(names) == len({mutant.apply(SOURCE) for mutant in MUTANTS})


def test_equal_changes_of_equal_lines_are_numbered() -> None:
    found = generate(FILE, "void f() {\n    call();\n    call();\n}\n")
    assert [mutant.name for mutant in found] == [
        f"{FILE}: call(); ==> ;",
        f"{FILE}: call(); ==> ; #2",
    ]


def test_survivor_is_reported_in_last_line(run: Run, capsys: pytest.CaptureFixture[str]) -> None:
    survivor = f"{FILE}: release(result); ==> ;"
    worker: Any = FakeWorker(survivor)
    run.work(worker)
    assert worker.first == ["tests/module/test_x.py::test_x"]
    assert not report(MUTANTS, run.results, {})
    *_, total, last = capsys.readouterr().out.splitlines()
    made = len(CHANGES)
    assert total.split() == ["total", str(made), "0", "1", "0", str(made - 2), "1", "95.5"]
    assert last == f"{FILE}:11: - release(result); / + ;"
    assert report(MUTANTS, run.results, {survivor: "reason"})


def test_results_are_kept_until_source_or_tests_change(
    run: Run, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    worker: Any = FakeWorker(MUTANTS[0].name)
    run.work(worker)
    again = Run(MUTANTS, {FILE: SOURCE}, tmp_path / "results")
    assert again.results == run.results
    monkeypatch.setattr("checks.mutation.__main__.digest_of", lambda *folders: b"other tests")
    again = Run(MUTANTS, {FILE: SOURCE}, tmp_path / "results")
    assert set(again.results) == {mutant.name for mutant in MUTANTS[1:]}  # without the survivor
    changed = SOURCE.replace("release", "free")
    assert not Run(generate(FILE, changed), {FILE: changed}, tmp_path / "results").results


def test_wrong_equivalent_mutant_is_an_error(run: Run, tmp_path: Path) -> None:
    survivor, killed, *_ = [mutant.name for mutant in MUTANTS]
    listed = tmp_path / "equivalent.txt"
    listed.write_text(f"# A comment.\n{survivor}\n\n= The reason.\n{killed}\n{FILE}: a ==> b\n")
    worker: Any = FakeWorker(survivor)
    run.work(worker)
    assert check_equivalent(read_equivalent(listed), MUTANTS, run.results) == [
        f"no reason for an equivalent mutant: {survivor}",
        f"not equivalent, but killed crash: tests/module/test_x.py::test_x: {killed}",
        f"no such mutant: {FILE}: a ==> b",
    ]


def test_equivalent_mutants_exist_with_reasons() -> None:
    sources = read_sources()
    every = [mutant for file, source in sources.items() for mutant in generate(file, source)]
    assert check_equivalent(read_equivalent(EQUIVALENT), every, {}) == []
