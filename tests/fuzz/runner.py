"""The fuzzer's targets, side by side for a while, each with a log, a growing corpus and a folder
for what it finds."""

from __future__ import annotations

import os
import shutil
import subprocess
import time
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

from tests import fresh
from tests.fresh import ROOT
from tests.fuzz import seeds

BUILD = ROOT / "build" / "fuzz"
PRODUCT = BUILD / fresh.PRODUCT.relative_to(fresh.BUILD)
HERE = ROOT / "tests" / "fuzz"
PROFILES = BUILD / "profiles"
CORPUS, FOUND = HERE / "corpus", HERE / "found"

ENVIRONMENT = {
    **os.environ,
    "APPLIANCE_BUILD": "build/fuzz",
    "PYTHONPATH": str(ROOT),
    "PYTHONWARNINGS": "ignore",
    # Every block is the sanitizer's own; what the interpreter keeps at the end is no leak.
    "PYTHONMALLOC": "malloc",
    "ASAN_OPTIONS": "detect_leaks=0:allocator_may_return_null=1",
    "UBSAN_OPTIONS": "print_stacktrace=1",
    "LLVM_PROFILE_FILE": str(PROFILES / "%p.profraw"),
}


@dataclass
class Target:
    """One target: what it starts from, and how long its inputs get."""

    name: str
    longest: int
    inputs: tuple[Path, ...] = ()
    dictionary: Path | None = None

    @property
    def grown(self) -> Path:
        """The inputs that reached something new, kept from run to run."""
        return BUILD / "corpus" / self.name

    @property
    def artifacts(self) -> Path:
        """Where the fuzzer writes what it finds."""
        return BUILD / "artifacts" / self.name

    def command(self, *options: str) -> list[str]:
        """The fuzzer's command line."""
        dictionary = [f"-dict={self.dictionary}"] if self.dictionary else []
        return [
            str(BUILD / f"fuzz_{self.name}"),
            f"-max_len={self.longest}",
            f"-artifact_prefix={self.artifacts}/",
            *dictionary,
            *options,
            str(self.grown),
            *map(str, self.inputs),
        ]


SEEDS = BUILD / "seeds"
PARSERS = Target("parsers", 4096, (SEEDS, CORPUS, FOUND), HERE / "words.dict")
TEXT = Target("text", 256)


@dataclass
class Run:
    """A target at work, and afterwards."""

    target: Target
    log: Path
    process: subprocess.Popen[bytes]

    @property
    def text(self) -> str:
        """All that the fuzzer has printed."""
        return self.log.read_text(errors="replace")

    @property
    def failed(self) -> bool:
        """It ended with a finding, or could not begin."""
        return self.process.poll() not in (None, 0)


def prepare() -> None:
    """Fresh seeds, the folders there, and nothing of an earlier run but what it learnt."""
    for folder in (SEEDS, PROFILES):
        shutil.rmtree(folder, ignore_errors=True)
    seeds.write(SEEDS)
    for target in (PARSERS, TEXT):
        shutil.rmtree(target.artifacts, ignore_errors=True)
        for folder in (target.grown, target.artifacts, *target.inputs):
            folder.mkdir(parents=True, exist_ok=True)


def started(seconds: int) -> list[Run]:
    """The text layer on one processor, the parsers on each other one."""
    workers = max(1, len(os.sched_getaffinity(0)) - 1)
    runs = []
    for number, target in enumerate([*[PARSERS] * workers, TEXT]):
        log = BUILD / f"{target.name}-{number}.log"
        options = [f"-max_total_time={seconds}", "-print_final_stats=1"]
        with log.open("wb") as out:
            process = subprocess.Popen(
                target.command(*options),
                stdin=subprocess.DEVNULL,
                stdout=out,
                stderr=subprocess.STDOUT,
                cwd=ROOT,
                env=ENVIRONMENT,
            )
        runs.append(Run(target, log, process))
    return runs


def ticks(runs: list[Run], seconds: int) -> Iterator[float]:
    """The seconds gone by while the targets run; the first finding ends them all."""
    begun = time.monotonic()
    patience = seconds + 60  # a fuzzer that does not keep its time
    try:
        while any(run.process.poll() is None for run in runs):
            gone = time.monotonic() - begun
            if any(run.failed for run in runs) or gone > patience:
                break
            yield gone
            time.sleep(0.2)
    finally:
        for run in runs:
            if run.process.poll() is None:
                run.process.terminate()
        for run in runs:
            run.process.wait()


def kept(run: Run) -> list[Path]:
    """Copies of what the run found where the tests go through it."""
    names = [file for file in run.target.artifacts.iterdir() if not file.name.startswith("slow")]
    if run.target is not PARSERS:
        return names
    FOUND.mkdir(exist_ok=True)
    return [Path(shutil.copy(file, FOUND)) for file in names]


def collect() -> int:
    """The fewest known inputs that reach every edge reached, as the corpus of the tests."""
    fewest = BUILD / "fewest"
    shutil.rmtree(fewest, ignore_errors=True)
    fewest.mkdir(parents=True)
    merge = Target("parsers", PARSERS.longest, (PARSERS.grown, *PARSERS.inputs)).command(
        "-merge=1", "-use_counters=0"
    )
    merge[merge.index(str(PARSERS.grown))] = str(fewest)
    subprocess.run(merge, cwd=ROOT, env=ENVIRONMENT, check=True, capture_output=True)
    shutil.rmtree(CORPUS, ignore_errors=True)
    shutil.copytree(fewest, CORPUS)
    return len(list(CORPUS.iterdir()))
