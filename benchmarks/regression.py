"""The gate: instructions and allocations per row, held against the figures in baseline.json.

Instructions depend on the interpreter's build, the compiler and the C library, so absolute counts
are kept per toolchain. The ratio to the floor, counted in the same run, is kept once for all: it is
what is compared where the toolchain is not known, with more room. Allocations depend on nothing.

A call on a hostile text of 16 times the size may take 17 times the instructions: every scan is
linear. That needs no baseline.

`make bench-baseline` writes the file anew, for the toolchain at hand; the others' counts stay.
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
from benchmarks.competitors import PRODUCT
from benchmarks.instructions import Counts, Growth
from benchmarks.workloads import BARE_BRIDGES, BRIDGES, COUNTED, FLOOR
from veldarin_simulator import native_library

BASELINE = Path(__file__).with_name("baseline.json")
TOLERANCE = 0.03
# Where a short text happens to lie makes a few instructions more or less to find its end.
_SLACK = 16
# Of ratios on a toolchain that the file does not know.
FOREIGN_TOLERANCE = 0.10

MAX_GROWTH = hostile.FACTOR + 1

# Of a query nearly all is json-c's and ujson's, and varies with the C library's allocator: what it
# takes beyond its floor is gated, where the reply is null.
_QUERY = BRIDGES[0]
GATED = [each for each in COUNTED if each not in (*BRIDGES[1:], *BARE_BRIDGES)]


def measure() -> Counts:
    """The counts of the build in use. `RuntimeError`: they cannot be had."""
    return instructions.count(GATED, [PRODUCT])


def toolchain() -> str:
    """What absolute counts depend on."""
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
            # The C library has its copies and searches by what the processor can do.
            platform.machine() + (" avx2" if "avx2" in flags else ""),
        ]
    )


def differences(counts: Counts) -> list[str]:
    """A sentence for every figure that is not what the baseline says. Better ones are named too:
    a gate that lags behind lets the next loss through."""
    baseline: dict[str, Any] = json.loads(BASELINE.read_text())
    absolute: dict[str, float] | None = baseline["instructions"].get(toolchain())
    found = []
    for workload in GATED:
        name = workload.name
        now, before = counts.allocations[name][PRODUCT], baseline["allocations"][name]
        if _far(now, before, TOLERANCE):
            found.append(_sentence(name, "allocations", now, before))
        if absolute is not None:
            now, before = _instructions(counts, name), absolute[name]
            if _far(now, before, TOLERANCE, _SLACK):
                found.append(_sentence(name, "instructions", now, before))
        if absolute is None and name in baseline["ratios"]:
            now, before = _ratio(counts, name), baseline["ratios"][name]
            if now > before and _far(now, before, FOREIGN_TOLERANCE):
                found.append(_sentence(name, "times the floor", now, before))
    return found


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


def write(counts: Counts) -> None:
    """Makes the counts the baseline."""
    known = json.loads(BASELINE.read_text())["instructions"] if BASELINE.is_file() else {}
    of_product = {each.name: _instructions(counts, each.name) for each in GATED}
    with_floor = [each.name for each in GATED if FLOOR in each.floors and each is not _QUERY]
    baseline = {
        "allocations": _rounded({name: row[PRODUCT] for name, row in counts.allocations.items()}),
        "ratios": _rounded({name: _ratio(counts, name) for name in with_floor}),
        "instructions": {**known, toolchain(): _rounded(of_product)},
    }
    BASELINE.write_text(json.dumps(baseline, indent=2) + "\n")


def _instructions(counts: Counts, name: str) -> float:
    row = counts.instructions[name]
    return row[PRODUCT] - row[FLOOR] if name == _QUERY.name else row[PRODUCT]


def _ratio(counts: Counts, name: str) -> float:
    row = counts.instructions[name]
    return row[PRODUCT] / row[FLOOR]


def _far(now: float, before: float, tolerance: float, slack: float = 0) -> bool:
    return abs(now - before) > max(tolerance * before, slack)


def _sentence(name: str, what: str, now: float, before: float) -> str:
    percent = (now / before - 1) * 100 if before else float("inf")
    return f"{name}: {now:,.4g} {what} instead of {before:,.4g} ({percent:+.1f} %)"


def _rounded(figures: dict[str, float]) -> dict[str, float]:
    return {name: float(f"{figure:.5g}") for name, figure in figures.items()}


def _compiler() -> str:
    cache = (native_library.build_directory() / "CMakeCache.txt").read_text()
    (compiler,) = (
        line.partition("=")[2]
        for line in cache.splitlines()
        if line.startswith("CMAKE_CXX_COMPILER:")
    )
    command = [compiler, "-dumpfullversion"]
    plain = {**os.environ, "LC_ALL": "C"}
    version = subprocess.run(command, capture_output=True, text=True, env=plain, check=True).stdout
    return f"{Path(compiler).name} {version.strip()}"
