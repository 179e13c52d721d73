"""Parse libFuzzer's logs and clang's coverage profiles."""

from __future__ import annotations

import json
import re
import subprocess
from pathlib import Path
from typing import NamedTuple

PARSER_SOURCES = (
    "arp.cpp",
    "bfd.cpp",
    "cli.cpp",
    "routing.cpp",
    "runtime/text.cpp",
    "runtime/strings.cpp",
)
MAX_LINES = 12  # shown of a finding; the log has the rest


class Stats(NamedTuple):
    """libFuzzer's statistics."""

    runs: int
    speed: int  # runs per second
    edges: int
    features: int  # edges, distinguished by how often they were taken


def parse_stats(log: str) -> Stats:
    """Parse the latest statistics in a log."""
    patterns = (
        r"^stat::number_of_executed_units:\s+(\d+)",
        r"^stat::average_exec_per_sec:\s+(\d+)",
        r"\bcov: (\d+)",
        r"\bft: (\d+)",
    )
    found = (re.findall(pattern, log, re.MULTILINE) for pattern in patterns)
    return Stats(*(int(numbers[-1]) if numbers else 0 for numbers in found))


def extract_finding(log: str) -> list[str]:
    """Extract the difference, or the sanitizer's report without foreign frames, from a log."""
    lines = [
        re.sub(r" \(BuildId: \w+\)| in \(anonymous namespace\)", "", line)
        for line in log.splitlines()
    ]
    start = r"^AssertionError|: runtime error: |ERROR: |Fatal Python error"
    first = next(
        (i for i, line in enumerate(lines) if re.search(start, line)), len(lines) - MAX_LINES
    )
    foreign = r"^$|^\s+#\d+ .* in (fuzzer::|__|raise|abort|main|_start)|^\s+#\d+ \S+  \(|^NOTE"
    report = [line for line in lines[first:] if not re.search(foreign, line)]
    end = r"^SUMMARY|libFuzzer: |^stat::|^MS: "
    last = next((i for i, line in enumerate(report) if i and re.search(end, line)), len(report))
    return report[: min(last, MAX_LINES)]


def line_coverage(module: Path, profiles: list[Path]) -> dict[str, tuple[int, int]]:
    """Return the lines covered and all lines of each source of the parsers."""
    merged = profiles[0].with_suffix(".profdata")
    _run_tool("llvm-profdata", "merge", "-o", merged, *profiles)
    exported = _run_tool("llvm-cov", "export", "-summary-only", f"-instr-profile={merged}", module)
    lines = {
        file["filename"].rpartition("veldarin/modules/")[2]: file["summary"]["lines"]
        for file in json.loads(exported)["data"][0]["files"]
    }
    return {file: (lines[file]["covered"], lines[file]["count"]) for file in PARSER_SOURCES}


def _run_tool(program: str, *arguments: str | Path) -> str:
    path = subprocess.run(
        ["clang", f"-print-prog-name={program}"], capture_output=True, text=True, check=True
    ).stdout.strip()
    return subprocess.run([path, *arguments], capture_output=True, text=True, check=True).stdout
