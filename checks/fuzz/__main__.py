"""Fuzz the parsers with libFuzzer and report the coverage.

The exit status is 1 for a finding; its input is copied to checks/fuzz/crashes for the tests.
"""

from __future__ import annotations

import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import time
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path
from typing import NamedTuple

from rich.console import Console
from rich.progress import BarColumn, Progress, TextColumn, TimeElapsedColumn

from checks.fuzz import seeds
from tests.support import isolated
from tests.support.isolated import ROOT

console = Console(highlight=False, soft_wrap=True)
BUILD = ROOT / "build" / "fuzz"
FAST_BUILD = ROOT / "build" / "fuzz-fast"  # without the sanitizers
MODULE = BUILD / isolated.MODULE_PATH.relative_to(isolated.BUILD)
HERE = ROOT / "checks" / "fuzz"
PROFILES = BUILD / "profiles"
ENVIRONMENT = {
    **os.environ,
    "MODULES_UTIL_BUILD": "build/fuzz",
    "PYTHONPATH": str(ROOT),
    "PYTHONWARNINGS": "ignore",
    "PYTHONMALLOC": "malloc",  # lets the sanitizer check every block
    "UBSAN_OPTIONS": "print_stacktrace=1",
    "LLVM_PROFILE_FILE": str(PROFILES / "%p.profraw"),
}
FAST_ENVIRONMENT = {
    **ENVIRONMENT,
    "MODULES_UTIL_BUILD": "build/fuzz-fast",
    "PYTHONMALLOC": "default",
    "LLVM_PROFILE_FILE": os.devnull,
}


PARSER_SOURCES = (
    "cli.cpp parsers/arp_table.cpp parsers/bfd_neighbor.cpp parsers/routing_table.cpp "
    "text/scan.cpp text/string_cache.cpp text/utf8_text.cpp"
).split()
MAX_LINES = 12  # shown of a finding; the log has the rest


@dataclass
class Target:
    """A fuzz target, the maximum length of its inputs, and its dictionary."""

    name: str
    max_len: int
    dictionary: Path | None = None

    def __post_init__(self) -> None:
        self.grown = BUILD / "corpus" / self.name  # kept from run to run
        self.artifacts = BUILD / "artifacts" / self.name
        self.corpus = HERE / "corpus" / self.name  # of the tests
        self.crashes = HERE / "crashes" / self.name  # of the tests
        self.seeds = BUILD / "seeds" / self.name

    @property
    def folders(self) -> list[Path]:
        """The folders with inputs; libFuzzer writes new ones to the first."""
        return [self.grown, self.seeds, self.corpus, self.crashes]

    def command(self, *options: str, folders: list[Path], build: Path = BUILD) -> list[str]:
        """Return libFuzzer's command line."""
        return [
            str(build / f"fuzz_{self.name}"),
            f"-max_len={self.max_len}",
            f"-artifact_prefix={self.artifacts}/",
            *([f"-dict={self.dictionary}"] if self.dictionary else []),
            *options,
            *map(str, folders),
        ]


PARSERS = Target("parsers", 2048, HERE / "parsers.dict")
TEXT = Target("text", 256)


@dataclass
class Run:
    """A running or finished target."""

    target: Target
    log: Path
    process: subprocess.Popen[bytes]
    stopped: bool = False  # before it was done

    def read_log(self, tail: int | None = None) -> str:
        """Read the log, or the last bytes of it."""
        return self.log.read_bytes()[-tail if tail else None :].decode(errors="replace")

    @property
    def has_finding(self) -> bool:
        """Whether it ended with a finding, or could not start."""
        return not self.stopped and self.process.poll() not in (None, 0)


def prepare() -> None:
    """Remove the results of earlier runs, except the grown corpora, and write the seeds."""
    for folder in (BUILD / "seeds", BUILD / "artifacts", PROFILES):
        shutil.rmtree(folder, ignore_errors=True)
    for target in (PARSERS, TEXT):
        for folder in (target.artifacts, *target.folders):
            folder.mkdir(parents=True, exist_ok=True)
    seeds.write(PARSERS.seeds)


def can_detect_leaks() -> bool:
    """Try whether LeakSanitizer, which traces its own process, works here."""
    command = TEXT.command("-runs=1", folders=[])
    return subprocess.run(command, env=ENVIRONMENT, capture_output=True).returncode == 0


def start(seconds: int, jobs: int, leaks: bool) -> list[Run]:
    """Start the text target in one process and the parser target in `jobs` processes.

    The first of these has the sanitizers. Each of the others compares four times as many inputs.
    """
    runs = []
    for number, target in enumerate([*[PARSERS] * jobs, TEXT]):
        sanitized = number == 0 or target is TEXT
        build, environment = (BUILD, ENVIRONMENT) if sanitized else (FAST_BUILD, FAST_ENVIRONMENT)
        log = BUILD / f"{target.name}-{number}.log"
        # Reading each second what the other processes found would take as long as fuzzing.
        options = [f"-max_total_time={seconds}", "-timeout=10", "-reload=60"]
        options.append("-print_final_stats=1")
        with log.open("wb") as out:
            process = subprocess.Popen(
                target.command(*options, folders=target.folders, build=build),
                stdin=subprocess.DEVNULL,
                stdout=out,
                stderr=subprocess.STDOUT,
                cwd=ROOT,
                env={**environment, "ASAN_OPTIONS": f"detect_leaks={leaks:d}"},
            )
        runs.append(Run(target, log, process))
    return runs


def wait(runs: list[Run], seconds: int) -> Iterator[float]:
    """Yield the elapsed time until all targets end; the first finding stops the others."""
    begin = time.monotonic()
    grace = 60  # for a target that exceeds its time limit
    try:
        while any(run.process.poll() is None for run in runs):
            elapsed = time.monotonic() - begin
            if any(run.has_finding for run in runs) or elapsed > seconds + grace:
                break
            yield elapsed
            time.sleep(0.5)
    finally:
        for run in runs:
            if run.process.poll() is None:
                run.stopped = True
                run.process.terminate()
        for run in runs:
            run.process.wait()


def save_crashes(run: Run) -> list[Path]:
    """Copy the inputs of the findings to the folder that the tests read."""
    files = [file for file in run.target.artifacts.iterdir() if not file.name.startswith("slow")]
    return [Path(shutil.copy(file, run.target.crashes)) for file in files]


def minimize_corpus() -> list[Path]:
    """Replace the tests' corpora with the fewest known inputs that reach every known edge."""
    for target in (PARSERS, TEXT):
        merged = BUILD / "merged" / target.name
        shutil.rmtree(merged, ignore_errors=True)
        merged.mkdir(parents=True)
        options = ("-merge=1", "-use_counters=0")
        command = target.command(*options, folders=[merged, *target.folders])
        subprocess.run(command, cwd=ROOT, env=ENVIRONMENT, check=True, capture_output=True)
        shutil.rmtree(target.corpus)
        shutil.copytree(merged, target.corpus)
    return [file for target in (PARSERS, TEXT) for file in sorted(target.corpus.iterdir())]


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


def line_coverage() -> dict[str, tuple[int, int]]:
    """Return the lines covered and all lines of each source of the parsers."""
    profiles = list(PROFILES.glob("*.profraw"))
    merged = PROFILES / "merged.profdata"
    _run_tool("llvm-profdata", "merge", "-o", merged, *profiles)
    exported = _run_tool("llvm-cov", "export", "-summary-only", f"-instr-profile={merged}", MODULE)
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


def parse_arguments() -> argparse.Namespace:
    """Parse the command line."""
    parser = argparse.ArgumentParser(prog="python -m checks.fuzz", description=__doc__)
    parser.add_argument("--seconds", type=int, default=60, metavar="N")
    parser.add_argument(
        "--jobs",
        type=int,
        default=max(2, len(os.sched_getaffinity(0))),
        metavar="N",
        help="processes of the parser target, the first with the sanitizers (default: %(default)s)",
    )
    parser.add_argument(
        "--minimize-corpus",
        action="store_true",
        help="replace the tests' corpus with the fewest known inputs that reach every edge",
    )
    return parser.parse_args()


def run_targets(seconds: int, jobs: int) -> list[Run]:
    """Run the targets until the time is up or one has a finding."""
    leaks = can_detect_leaks()
    if not leaks:
        console.print("fuzz: no leak detection, because processes cannot be traced here")
    runs = start(seconds, jobs, leaks)
    columns = (
        TextColumn("{task.description}"),
        BarColumn(),
        TextColumn("{task.fields[edges]} edges"),
        TimeElapsedColumn(),
    )
    with Progress(*columns, console=console, disable=not console.is_terminal) as progress:
        bar = progress.add_task("fuzzing", total=seconds, edges=0)
        for elapsed in wait(runs, seconds):
            edges = max(parse_stats(run.read_log(4096)).edges for run in runs)
            progress.update(bar, completed=min(elapsed, seconds), edges=edges)
    return runs


def print_result(run: Run) -> bool:
    """Print the result of a run; return whether it is good."""
    log = run.read_log()
    stats = parse_stats(log)
    if not run.has_finding:
        console.print(
            f"{run.target.name}: {stats.runs:,} runs, {stats.speed:,} per second; "
            f"{stats.edges:,} edges, {stats.features:,} features; "
            + ("stopped" if run.stopped else "no findings")
        )
        # A run that was stopped although no other one has a finding did not keep its time limit.
        return not run.stopped and stats.runs > 0
    console.print(f"{run.target.name}: a finding after {stats.runs:,} runs")
    console.print(*extract_finding(log), sep="\n", markup=False)
    for file in save_crashes(run):
        console.print(f"input: {file.relative_to(ROOT)}")
    console.print(f"log: {run.log.relative_to(ROOT)}")
    return False


def main() -> int:
    """Run the command and return its exit status."""
    options = parse_arguments()
    for build in (BUILD, FAST_BUILD)[: options.jobs]:
        if not (build / "fuzz_parsers").is_file():
            console.print(f"fuzz: {build} has no fuzz_parsers; run: make fuzz")
            return 1
    prepare()
    results = [print_result(run) for run in run_targets(options.seconds, options.jobs)]
    if not all(results):
        return 1
    files = line_coverage().items()
    counts = ", ".join(f"{file} {covered} of {count}" for file, (covered, count) in files)
    console.print(f"line coverage: {counts}")
    if options.minimize_corpus:
        console.print(f"corpus of the tests: {len(minimize_corpus())} inputs")
    return 0


if __name__ == "__main__":
    sys.exit(main())
