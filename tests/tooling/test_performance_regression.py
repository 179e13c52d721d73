"""Compares the instructions and allocations of calls with the baseline."""

from __future__ import annotations

import json
import platform
import shutil
from pathlib import Path

import pytest

from benchmarks import hostile, regression
from benchmarks.competitors import MODULE
from benchmarks.instructions import InstructionCounts, Table
from benchmarks.workloads import LOWER_BOUND, QUERIES
from veldarin_simulator import native_library

ARP = regression.COMPARED[0].name
BRIDGE = "bridge, null"


def is_release() -> bool:
    """Whether the build in use is a release build."""
    cache = native_library.build_directory() / "CMakeCache.txt"
    return cache.is_file() and "CMAKE_BUILD_TYPE:STRING=Release" in cache.read_text().splitlines()


@pytest.mark.skipif(platform.machine() != "x86_64", reason="the baseline is of a workstation")
@pytest.mark.skipif(not is_release(), reason="the baseline is of the release build")
@pytest.mark.workstation_only("callgrind counts the workstation's instructions")
def test_counts_of_this_build_equal_the_baseline() -> None:
    differences = regression.differences(regression.measure())
    assert not differences, "\n".join([*differences, "if intended: make bench-baseline"])


@pytest.mark.skipif(platform.machine() != "x86_64", reason="valgrind runs on a workstation only")
@pytest.mark.skipif(not is_release(), reason="the release build's searches are those that ship")
def test_hostile_texts_take_linear_time() -> None:
    sentences = regression.nonlinear(regression.measure_growth())
    assert not sentences, "\n".join(sentences)


# The comparison itself, with the baseline's own figures or one changed figure.


def figures() -> dict[str, float]:
    """Return the baseline's instructions for its first toolchain."""
    baseline = json.loads(regression.BASELINE.read_text())
    instructions: dict[str, float] = next(iter(baseline["instructions"].values()))
    return instructions


def largest_ratio(name: str) -> float:
    """Return a workload's largest ratio to the lower bound."""
    ratios = json.loads(regression.BASELINE.read_text())["ratios"].values()
    return max(known.get(name, 1) for known in ratios)


def counts(name: str = ARP, instructions: float = 1, allocations: float = 1) -> InstructionCounts:
    """Return the counts of the baseline, with those of one workload multiplied."""
    baseline = json.loads(regression.BASELINE.read_text())
    instruction_table: Table = {}
    for each, figure in figures().items():
        lower_bound = figure / largest_ratio(each)
        whole = figure + lower_bound if each == BRIDGE else figure
        instruction_table[each] = {MODULE: whole, LOWER_BOUND: lower_bound}
    instruction_table[name][MODULE] *= instructions
    allocated: Table = {each: {MODULE: n} for each, n in baseline["allocations"].items()}
    allocated[name][MODULE] *= allocations
    return InstructionCounts(instruction_table, allocated, {})


@pytest.fixture
def known_toolchain(monkeypatch: pytest.MonkeyPatch) -> None:
    """Use a toolchain that the baseline has counts for."""
    toolchain = next(iter(json.loads(regression.BASELINE.read_text())["instructions"]))
    monkeypatch.setattr(regression, "toolchain", lambda: toolchain)


@pytest.fixture
def unknown_toolchain(monkeypatch: pytest.MonkeyPatch) -> None:
    """Use a toolchain that the baseline has no counts for."""
    monkeypatch.setattr(regression, "toolchain", lambda: "another")


def test_baseline_has_exactly_the_compared_workloads() -> None:
    assert list(figures()) == [each.name for each in regression.COMPARED]


@pytest.mark.usefixtures("known_toolchain")
@pytest.mark.parametrize(("factor", "count"), [(1, 0), (1.02, 0), (0.98, 0), (1.04, 1), (0.96, 1)])
def test_differences_beyond_three_percent_are_reported(factor: float, count: int) -> None:
    sentences = regression.differences(counts(instructions=factor))
    assert len(sentences) == count
    for sentence in sentences:
        assert sentence.startswith(f"{ARP}: ")
        assert "instructions" in sentence


@pytest.mark.usefixtures("known_toolchain")
@pytest.mark.parametrize(("factor", "count"), [(1.05, 0), (0.95, 0), (1.07, 1), (0.93, 1)])
def test_query_differences_beyond_six_percent_are_reported(factor: float, count: int) -> None:
    name = QUERIES[0].name
    assert len(regression.differences(counts(name, instructions=factor))) == count


@pytest.mark.usefixtures("known_toolchain")
def test_query_counts_are_compared_above_the_lower_bound() -> None:
    own = figures()[BRIDGE]
    whole = counts().instructions[BRIDGE][MODULE]
    (sentence,) = regression.differences(counts(BRIDGE, instructions=1 + 0.06 * own / whole))
    assert sentence.startswith(BRIDGE)


@pytest.mark.parametrize("toolchain", ["known_toolchain", "unknown_toolchain"])
def test_more_allocations_are_reported_on_any_toolchain(
    toolchain: str, request: pytest.FixtureRequest
) -> None:
    request.getfixturevalue(toolchain)
    (sentence,) = regression.differences(counts(allocations=1.1))
    assert "allocations" in sentence


@pytest.mark.usefixtures("unknown_toolchain")
def test_unknown_toolchain_compares_ratios_to_lower_bound() -> None:
    assert regression.differences(counts(instructions=1.09)) == []
    (sentence,) = regression.differences(counts(instructions=1.11))
    assert "times the lower bound" in sentence


def test_recording_keeps_other_toolchains(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    before = json.loads(regression.BASELINE.read_text())
    measured = counts(instructions=1.2)
    recorded = tmp_path / "baseline.json"
    shutil.copy(regression.BASELINE, recorded)
    monkeypatch.setattr(regression, "BASELINE", recorded)
    monkeypatch.setattr(regression, "toolchain", lambda: "another")
    regression.write(measured)
    after = json.loads(recorded.read_text())
    assert after["allocations"] == before["allocations"]
    for figures_of in ("ratios", "instructions"):
        own = after[figures_of].pop("another")
        assert after[figures_of] == before[figures_of]
        assert list(own) == list(next(iter(before[figures_of].values())))
    assert regression.differences(measured) == []


def test_growth_beyond_17_times_is_reported() -> None:
    assert regression.nonlinear({"a": (1000, 17_000), "b": (1000, 2000)}) == []
    (sentence,) = regression.nonlinear({"a": (1000, 17_001), "b": (1000, 17_000)})
    assert sentence.startswith("a: 17,001 instructions")


def test_hostile_texts_have_the_counted_sizes() -> None:
    """A text that did not grow would pass whatever the module does."""
    for text in hostile.TEXTS:
        around = len(text.head) + len(text.tail)
        small, large = (len(text.output(size)) - around for size in hostile.SIZES)
        assert hostile.SIZES[0] - len(text.piece) < small <= hostile.SIZES[0], text.name
        assert large == hostile.FACTOR * small, text.name
