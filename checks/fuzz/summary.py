"""What became of a fuzzer's run: out of what it printed, and out of the profiles that it left."""

from __future__ import annotations

import json
import re
import subprocess
from pathlib import Path
from typing import NamedTuple

PARSERS = (
    "parsers/arp_table.cpp",
    "parsers/bfd_neighbor.cpp",
    "cli.cpp",
    "parsers/routing_table.cpp",
    "text/scan.cpp",
    "text/string_cache.cpp",
)
SHOWN = 12  # lines of a report; the log has the rest


class Reached(NamedTuple):
    """How far a run came. Edges are steps from one piece of straight code to the next."""

    runs: int
    speed: int  # a second
    edges: int
    features: int  # edges, told apart by how often they were taken


def reached(log: str) -> Reached:
    """The figures of a run, as far as it got."""
    runs, speed = (
        _last(rf"^stat::{name}:\s+(\d+)", log)
        for name in ("number_of_executed_units", "average_exec_per_sec")
    )
    return Reached(runs, speed, _last(r"\bcov: (\d+)", log), _last(r"\bft: (\d+)", log))


def _last(pattern: str, log: str) -> int:
    found = re.findall(pattern, log, re.MULTILINE)
    return int(found[-1]) if found else 0


def report(log: str) -> list[str]:
    """What a run ended with: the disagreement, or the sanitizer's report as far as our code."""
    lines = [
        re.sub(r" \(BuildId: \w+\)| in \(anonymous namespace\)", "", line)
        for line in log.splitlines()
    ]
    begins = r"^AssertionError|: runtime error: |ERROR: |Fatal Python error"
    first = next((i for i, line in enumerate(lines) if re.search(begins, line)), len(lines) - SHOWN)
    foreign = r"^$|^\s+#\d+ .* in (fuzzer::|__|raise|abort|main|_start)|^\s+#\d+ \S+  \(|^NOTE"
    told = [line for line in lines[first:] if not re.search(foreign, line)]
    ends = r"^SUMMARY|libFuzzer: |^stat::|^MS: "
    last = next((i for i, line in enumerate(told) if i and re.search(ends, line)), len(told))
    return told[: min(last, SHOWN)]


def lines_of_files(product: Path, profiles: list[Path]) -> dict[str, tuple[int, int]]:
    """Lines run, and all, of each source file of the product that the parsers are made of."""
    merged = profiles[0].with_suffix(".profdata")
    _printed("llvm-profdata", "merge", "-o", merged, *profiles)
    exported = _printed("llvm-cov", "export", "-summary-only", f"-instr-profile={merged}", product)
    lines = {
        file["filename"].rpartition("veldarin/modules/")[2]: file["summary"]["lines"]
        for file in json.loads(exported)["data"][0]["files"]
    }
    return {file: (lines[file]["covered"], lines[file]["count"]) for file in PARSERS}


def _printed(program: str, *arguments: str | Path) -> str:
    path = subprocess.run(
        ["clang", f"-print-prog-name={program}"], capture_output=True, text=True, check=True
    ).stdout.strip()
    return subprocess.run([path, *arguments], capture_output=True, text=True, check=True).stdout
