"""Instruction and allocation counts of calls match the baseline, so that a slower module fails the
tests even on a busy machine."""

from __future__ import annotations

import json
import platform

import pytest

from benchmarks import hostile, regression
from benchmarks.competitors import PRODUCT
from benchmarks.instructions import Counts, Table
from benchmarks.workloads import FLOOR
from veldarin_simulator import native_library

ARP = regression.GATED[0].name
BRIDGE = "bridge, null"


def is_release() -> bool:
    """Whether the build in use is the one that ships."""
    cache = native_library.build_directory() / "CMakeCache.txt"
    return cache.is_file() and "CMAKE_BUILD_TYPE:STRING=Release" in cache.read_text().splitlines()


@pytest.mark.skipif(platform.machine() != "x86_64", reason="the figures are a workstation's")
@pytest.mark.skipif(not is_release(), reason="the figures are those of the release build")
@pytest.mark.workstation_only("callgrind counts the workstation's instructions")
def test_calls_match_instruction_baseline() -> None:
    found = regression.differences(regression.measure())
    assert not found, "\n".join([*found, "if this is meant: make bench-baseline"])


@pytest.mark.skipif(platform.machine() != "x86_64", reason="valgrind counts on a workstation")
@pytest.mark.skipif(not is_release(), reason="the release build's searches are those that ship")
def test_hostile_texts_take_linear_time() -> None:
    found = regression.nonlinear(regression.measure_growth())
    assert not found, "\n".join(found)


# The gate itself, on figures that are the baseline's own but for one.


def figures() -> dict[str, float]:
    """The baseline's instructions, of whichever toolchain comes first."""
    baseline = json.loads(regression.BASELINE.read_text())
    instructions: dict[str, float] = next(iter(baseline["instructions"].values()))
    return instructions


def counts(name: str = ARP, instructions: float = 1, allocations: float = 1) -> Counts:
    """Counts of the baseline, with those of one workload multiplied by factors."""
    baseline = json.loads(regression.BASELINE.read_text())
    counted: Table = {}
    for each, figure in figures().items():
        floor = figure / baseline["ratios"].get(each, 1)
        whole = figure + floor if each == BRIDGE else figure
        counted[each] = {PRODUCT: whole, FLOOR: floor}
    counted[name][PRODUCT] *= instructions
    allocated: Table = {each: {PRODUCT: n} for each, n in baseline["allocations"].items()}
    allocated[name][PRODUCT] *= allocations
    return Counts(counted, allocated, {})


@pytest.fixture
def known(monkeypatch: pytest.MonkeyPatch) -> None:
    """A toolchain that the baseline has counts of."""
    baseline = json.loads(regression.BASELINE.read_text())
    toolchain = next(iter(baseline["instructions"]))
    monkeypatch.setattr(regression, "toolchain", lambda: toolchain)


@pytest.fixture
def foreign(monkeypatch: pytest.MonkeyPatch) -> None:
    """A toolchain that it has none of."""
    monkeypatch.setattr(regression, "toolchain", lambda: "another")


def test_baseline_has_exactly_gated_workloads() -> None:
    assert list(figures()) == [each.name for each in regression.GATED]


@pytest.mark.usefixtures("known")
def test_baseline_equals_itself() -> None:
    assert regression.differences(counts()) == []


@pytest.mark.usefixtures("known")
@pytest.mark.parametrize("factor", [1.04, 0.96])
def test_four_percent_change_is_reported(factor: float) -> None:
    (sentence,) = regression.differences(counts(instructions=factor))
    assert sentence.startswith(f"{ARP}: ")
    assert "instructions" in sentence


@pytest.mark.usefixtures("known")
@pytest.mark.parametrize("factor", [1.02, 0.98])
def test_two_percent_change_is_tolerated(factor: float) -> None:
    assert regression.differences(counts(instructions=factor)) == []


@pytest.mark.usefixtures("known")
def test_query_is_compared_beyond_lower_bound() -> None:
    own = figures()[BRIDGE]
    whole = counts().instructions[BRIDGE][PRODUCT]
    (sentence,) = regression.differences(counts(BRIDGE, instructions=1 + 0.04 * own / whole))
    assert sentence.startswith(BRIDGE)


@pytest.mark.parametrize("toolchain", ["known", "foreign"])
def test_additional_allocation_is_reported(toolchain: str, request: pytest.FixtureRequest) -> None:
    request.getfixturevalue(toolchain)
    (sentence,) = regression.differences(counts(allocations=1.1))
    assert "allocations" in sentence


@pytest.mark.usefixtures("foreign")
def test_other_toolchain_compares_ratio_to_lower_bound() -> None:
    assert regression.differences(counts(instructions=1.08)) == []
    (sentence,) = regression.differences(counts(instructions=1.12))
    assert "times the floor" in sentence


def test_growth_up_to_17_times_is_linear() -> None:
    assert regression.nonlinear({"a": (1000, 17_000), "b": (1000, 2000)}) == []


def test_growth_beyond_17_times_is_reported() -> None:
    (sentence,) = regression.nonlinear({"a": (1000, 17_001), "b": (1000, 17_000)})
    assert sentence.startswith("a: 17,001 instructions")


def test_hostile_texts_have_counted_sizes() -> None:
    """A text that does not grow would always pass."""
    for text in hostile.TEXTS:
        around = len(text.head) + len(text.tail)
        small, large = (len(text.output(size)) - around for size in hostile.SIZES)
        assert hostile.SIZES[0] - len(text.piece) < small <= hostile.SIZES[0], text.name
        assert large == hostile.FACTOR * small, text.name
