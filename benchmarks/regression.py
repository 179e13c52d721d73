"""Compares instructions and allocations per row with baseline.json.

Instructions depend on the interpreter's build, the compiler and the C library, so the baseline has
absolute counts per toolchain. On an unknown toolchain the ratio to the lower bound, counted in the
same run, is compared instead: a compiler changes both, but not by the same share, so the ratio may
exceed the largest of the known toolchains by a tenth. Allocations do not depend on the toolchain.

Every scan must be linear: a call on a hostile text (`benchmarks/hostile.py`) of 16 times the size
may take at most 17 times the instructions. This check needs no baseline.

`make bench-baseline` updates the counts of this toolchain and keeps those of the others.
"""

from __future__ import annotations

import json
import os
import platform
import subprocess
import sysconfig
from pathlib import Path
from typing import Any

from benchmarks import hostile, instructions
from benchmarks.competitors import MODULE
from benchmarks.instructions import Growth, InstructionCounts
from benchmarks.workloads import (
    BRIDGES,
    COUNTED,
    LAST_INTERFACE,
    LOWER_BOUND,
    NO_PARSE_BRIDGES,
    PAGE,
    QUERIES,
    TABLES,
)
from veldarin_simulator import native_library

BASELINE = Path(__file__).with_name("baseline.json")
TOLERANCE = 0.03
# Instructions. The alignment of a short text changes those of `strlen` by up to this many.
_SLACK = 16
# For the instructions of queries. json-c allocates in them, and the path of glibc 2.31's allocator
# depends on the heap, thus on the checkout's path and the environment: by up to 4.5 %.
QUERY_TOLERANCE = 0.06
UNKNOWN_TOOLCHAIN_TOLERANCE = 0.10

MAX_GROWTH = hostile.FACTOR + 1

# A query spends nearly all instructions in json-c and ujson, which vary with the C library's
# allocator. So only the null reply counts here, by the instructions above the lower bound.
_QUERY = BRIDGES[0]
_LEFT_OUT = (*BRIDGES[1:], *NO_PARSE_BRIDGES, *PAGE, LAST_INTERFACE)
# One size of small tables is enough here.
_SMALL_TABLES = [each for each in TABLES if each.rows in (1, 30)]
COMPARED = [each for each in COUNTED if each not in (*_LEFT_OUT, *_SMALL_TABLES)]


def measure() -> InstructionCounts:
    """Return the counts of the build in use.

    Raises:
        RuntimeError: They cannot be counted.
    """
    return instructions.count(COMPARED, [MODULE])


def toolchain() -> str:
    """Return a description of everything that absolute counts depend on."""
    options = sysconfig.get_config_var("CONFIG_ARGS") or ""
    build = [
        "shared" if sysconfig.get_config_var("Py_ENABLE_SHARED") else "static",
        *(["pgo"] if "--enable-optimizations" in options else []),
        *(["lto"] if "--with-lto" in options else []),
    ]
    flags = Path("/proc/cpuinfo").read_text().split()
    return ", ".join(
        [
            f"CPython {platform.python_version()} {' '.join(build)} {platform.python_compiler()}",
            _compiler(),
            " ".join(platform.libc_ver()),
            # The C library chooses its copy and search functions by the processor's features.
            platform.machine() + (" avx2" if "avx2" in flags else ""),
        ]
    )


def differences(counts: InstructionCounts) -> list[str]:
    """Return a sentence for every figure that differs from the baseline.

    Improvements count as differences: a baseline that lags behind would hide the next regression.
    """
    baseline: dict[str, Any] = json.loads(BASELINE.read_text())
    absolute: dict[str, float] | None = baseline["instructions"].get(toolchain())
    sentences = []
    for workload in COMPARED:
        name = workload.name
        now, before = counts.allocations[name][MODULE], baseline["allocations"][name]
        if _differs(now, before, TOLERANCE):
            sentences.append(_describe(name, "allocations", now, before))
        if absolute is not None:
            now, before = _instructions(counts, name), absolute[name]
            tolerance = QUERY_TOLERANCE if workload in QUERIES else TOLERANCE
            if _differs(now, before, tolerance, _SLACK):
                sentences.append(_describe(name, "instructions", now, before))
        known = [ratios[name] for ratios in baseline["ratios"].values() if name in ratios]
        if absolute is None and known:
            now, before = _ratio(counts, name), max(known)
            if now > before and _differs(now, before, UNKNOWN_TOOLCHAIN_TOLERANCE):
                sentences.append(_describe(name, "times the lower bound", now, before))
    return sentences


def measure_growth() -> Growth:
    """Count calls on hostile texts, with the build in use.

    Raises:
        RuntimeError: They cannot be counted.
    """
    return instructions.count_hostile()


def nonlinear(growth: Growth) -> list[str]:
    """Return a sentence for every hostile text that takes more than linear time."""
    return [
        f"{name}: {large:,} instructions for {hostile.FACTOR} times the text that takes {small:,}"
        f" ({large / small:.4g} times, at most {MAX_GROWTH} are linear)"
        for name, (small, large) in growth.items()
        if large > MAX_GROWTH * small
    ]


def write(counts: InstructionCounts) -> None:
    """Record the counts as the baseline."""
    recorded = json.loads(BASELINE.read_text())
    absolute = {each.name: _instructions(counts, each.name) for each in COMPARED}
    bounded = [each.name for each in COMPARED if LOWER_BOUND in each.bounds and each is not _QUERY]
    ratios = {name: _ratio(counts, name) for name in bounded}
    baseline = {
        "allocations": _round({name: row[MODULE] for name, row in counts.allocations.items()}),
        "ratios": {**recorded["ratios"], toolchain(): _round(ratios)},
        "instructions": {**recorded["instructions"], toolchain(): _round(absolute)},
    }
    BASELINE.write_text(json.dumps(baseline, indent=2) + "\n")


def _instructions(counts: InstructionCounts, name: str) -> float:
    row = counts.instructions[name]
    return row[MODULE] - row[LOWER_BOUND] if name == _QUERY.name else row[MODULE]


def _ratio(counts: InstructionCounts, name: str) -> float:
    row = counts.instructions[name]
    return row[MODULE] / row[LOWER_BOUND]


def _differs(now: float, before: float, tolerance: float, slack: float = 0) -> bool:
    return abs(now - before) > max(tolerance * before, slack)


def _describe(name: str, what: str, now: float, before: float) -> str:
    percent = (now / before - 1) * 100 if before else float("inf")
    return f"{name}: {now:,.4g} {what} instead of {before:,.4g} ({percent:+.1f} %)"


def _round(figures: dict[str, float]) -> dict[str, float]:
    return {name: float(f"{figure:.5g}") for name, figure in figures.items()}


def _compiler() -> str:
    cache = (native_library.build_directory() / "CMakeCache.txt").read_text()
    (compiler,) = (
        line.partition("=")[2]
        for line in cache.splitlines()
        if line.startswith("CMAKE_CXX_COMPILER:")
    )
    command = [compiler, "-dumpfullversion"]
    environment = {**os.environ, "LC_ALL": "C"}
    version = subprocess.run(
        command, capture_output=True, text=True, env=environment, check=True
    ).stdout
    return f"{Path(compiler).name} {version.strip()}"
