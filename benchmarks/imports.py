"""The import in fresh processes, with siblings and packages loaded, and the size of the file.

`python -m benchmarks.imports NAME` is such a process: it prints the processor time of one import in
nanoseconds."""

from __future__ import annotations

import subprocess
import sys
import time
from collections import namedtuple
from collections.abc import Sequence
from importlib import import_module
from pathlib import Path

from benchmarks import competitors, load
from benchmarks.timing import Times
from veldarin_simulator import native_library

ROUNDS = 15
CONTENDERS = (competitors.PRODUCT, competitors.CYTHON)
NAMEDTUPLE = "namedtuple"  # what every import of the module makes anew, alone


def measure() -> dict[str, Times]:
    """Times of the imports, in turns, and of the one record type that they make."""
    samples: dict[str, list[float]] = {name: [] for name in (*CONTENDERS, NAMEDTUPLE)}
    order = list(samples)
    for _ in range(ROUNDS):
        for name in order:
            samples[name].append(_once(name))
        order.reverse()
    return {name: Times(tuple(taken)) for name, taken in samples.items()}


def sizes() -> dict[str, int]:
    """Bytes of the files, stripped both."""
    files = {
        competitors.PRODUCT: native_library.build_directory() / "stage" / "veldarin" / "modules",
        competitors.CYTHON: load.FOLDER,
    }
    return {name: _file(folder, name).stat().st_size for name, folder in files.items()}


def _file(folder: Path, name: str) -> Path:
    stem = competitors.IMPORT_NAMES[name].rpartition(".")[2]
    return next(folder.glob(f"{stem}.*.so"))


def _once(name: str) -> int:
    command = [sys.executable, "-m", "benchmarks.imports", name]
    done = subprocess.run(
        command, cwd=native_library.ROOT, capture_output=True, text=True, check=True
    )
    return int(done.stdout)


def main(arguments: Sequence[str]) -> None:
    """The fresh process."""
    native_library.load()
    load.load("bench_repeat")  # makes the compiled peer importable
    competitors.load_siblings()
    (name,) = arguments
    begin = time.thread_time_ns()
    if name == NAMEDTUPLE:
        namedtuple(
            "Counters",
            "bytes_sent bytes_recv packets_sent packets_recv errin errout dropin dropout",
        )
    else:
        import_module(competitors.IMPORT_NAMES[name])
    print(time.thread_time_ns() - begin)


if __name__ == "__main__":
    main(sys.argv[1:])
