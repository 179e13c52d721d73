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

from checks.fuzz import seeds
from tests.support import isolated
from tests.support.isolated import ROOT

BUILD = ROOT / "build" / "fuzz"
PRODUCT = BUILD / isolated.MODULE_PATH.relative_to(isolated.BUILD)
HERE = ROOT / "checks" / "fuzz"
PROFILES = BUILD / "profiles"
ENVIRONMENT = {
    **os.environ,
    "MODULES_UTIL_BUILD": "build/fuzz",
    "PYTHONPATH": str(ROOT),
    "PYTHONWARNINGS": "ignore",
    "PYTHONMALLOC": "malloc",  # every block is the sanitizer's own
    "UBSAN_OPTIONS": "print_stacktrace=1",
    "LLVM_PROFILE_FILE": str(PROFILES / "%p.profraw"),
}


@dataclass
class Target:
    """One target: how long its inputs get, and what they are made of."""

    name: str
    longest: int
    dictionary: Path | None = None

    @property
    def grown(self) -> Path:
        """The inputs that reached something new, kept from run to run."""
        return BUILD / "corpus" / self.name

    @property
    def artifacts(self) -> Path:
        """Where the fuzzer writes what it finds."""
        return BUILD / "artifacts" / self.name

    @property
    def found(self) -> Path:
        """Where the tests go through what it found."""
        return HERE / "crashes" / self.name

    @property
    def begins_with(self) -> list[Path]:
        """Seeds, and what the tests go through."""
        return [BUILD / "seeds" / self.name, HERE / "corpus" / self.name, self.found]

    def command(self, *options: str, folders: list[Path]) -> list[str]:
        """The fuzzer's command line; into the first of the folders goes what is new."""
        dictionary = [f"-dict={self.dictionary}"] if self.dictionary else []
        return [
            str(BUILD / f"fuzz_{self.name}"),
            f"-max_len={self.longest}",
            f"-artifact_prefix={self.artifacts}/",
            *dictionary,
            *options,
            *map(str, folders),
        ]


PARSERS = Target("parsers", 2048, HERE / "parsers.dict")
TEXT = Target("text", 256)


@dataclass
class Run:
    """A target at work, and afterwards."""

    target: Target
    log: Path
    process: subprocess.Popen[bytes]
    stopped: bool = False  # by us, before it was done

    @property
    def text(self) -> str:
        """All that the fuzzer has printed."""
        return self.log.read_text(errors="replace")

    @property
    def latest(self) -> str:
        """The end of it."""
        with self.log.open("rb") as log:
            log.seek(max(0, self.log.stat().st_size - 4096))
            return log.read().decode(errors="replace")

    @property
    def failed(self) -> bool:
        """It ended with a finding, or could not begin."""
        return not self.stopped and self.process.poll() not in (None, 0)


def prepare() -> None:
    """Fresh seeds, the folders there, and nothing of an earlier run but what it learnt."""
    for folder in (BUILD / "seeds", BUILD / "artifacts", PROFILES):
        shutil.rmtree(folder, ignore_errors=True)
    for target in (PARSERS, TEXT):
        for folder in (target.grown, target.artifacts, *target.begins_with):
            folder.mkdir(parents=True, exist_ok=True)
    seeds.write(BUILD / "seeds" / PARSERS.name)


def sees_leaks() -> bool:
    """Looking for leaks is possible here: the sanitizer has to trace its own process for that."""
    tried = subprocess.run(
        TEXT.command("-runs=1", folders=[]), env=ENVIRONMENT, capture_output=True
    )
    return tried.returncode == 0


def started(seconds: int, leaks: bool) -> list[Run]:
    """The text layer on one processor, the parsers on each other one."""
    workers = max(1, len(os.sched_getaffinity(0)) - 1)
    runs = []
    for number, target in enumerate([*[PARSERS] * workers, TEXT]):
        log = BUILD / f"{target.name}-{number}.log"
        options = [f"-max_total_time={seconds}", "-timeout=10", "-print_final_stats=1"]
        with log.open("wb") as out:
            process = subprocess.Popen(
                target.command(*options, folders=[target.grown, *target.begins_with]),
                stdin=subprocess.DEVNULL,
                stdout=out,
                stderr=subprocess.STDOUT,
                cwd=ROOT,
                env={**ENVIRONMENT, "ASAN_OPTIONS": f"detect_leaks={leaks:d}"},
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
            time.sleep(0.5)
    finally:
        for run in runs:
            if run.process.poll() is None:
                run.stopped = True
                run.process.terminate()
        for run in runs:
            run.process.wait()


def kept(run: Run) -> list[Path]:
    """Copies of what the run found where the tests go through it."""
    files = [file for file in run.target.artifacts.iterdir() if not file.name.startswith("slow")]
    return [Path(shutil.copy(file, run.target.found)) for file in files]


def collect() -> list[Path]:
    """The fewest known inputs that reach every edge reached, as the corpus of the tests."""
    return [file for target in (PARSERS, TEXT) for file in _collected(target)]


def _collected(target: Target) -> list[Path]:
    corpus = HERE / "corpus" / target.name
    fewest = BUILD / "fewest" / target.name
    shutil.rmtree(fewest, ignore_errors=True)
    fewest.mkdir(parents=True)
    folders = [fewest, target.grown, *target.begins_with]
    merge = target.command("-merge=1", "-use_counters=0", folders=folders)
    subprocess.run(merge, cwd=ROOT, env=ENVIRONMENT, check=True, capture_output=True)
    shutil.rmtree(corpus)
    shutil.copytree(fewest, corpus)
    return sorted(corpus.iterdir())
