"""Instructions and allocations per row: figures that a busy machine does not change.

One process under valgrind's callgrind runs every workload n times and 5n times; the difference over
the 4n calls is free of whatever comes once. Hashes are not randomised and the collector is off.
"""

from __future__ import annotations

import json
import os
import re
import subprocess
import sys
import tempfile
from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path

from benchmarks import callgrind_worker, hostile
from benchmarks.workloads import Workload
from veldarin_simulator import native_library

_LABEL = re.compile(r"^desc: Trigger: Client Request: (.*)/(.*)/(\d+)$", re.MULTILINE)
_TOTAL = re.compile(r"^(?:totals|summary): (\d+)", re.MULTILINE)

# By workload and contender: a figure per row, or per call.
Table = dict[str, dict[str, float]]
# By hostile text: instructions of one call at the smaller and at the larger size.
Growth = dict[str, tuple[int, int]]
# By workload, contender and number of calls; by hostile text, size and 1: instructions.
_Totals = dict[tuple[str, str, int], int]


@dataclass(frozen=True)
class Counts:
    """What was counted. `imports`: the instructions of one import, siblings loaded."""

    instructions: Table
    allocations: Table
    imports: dict[str, float]


def count(chosen: Sequence[Workload], contenders: Sequence[str]) -> Counts:
    """The counts of the contenders and of the floors.

    `RuntimeError`: valgrind is missing, or the counted process failed.
    """
    with tempfile.TemporaryDirectory(prefix="callgrind-") as folder:
        request = {"workloads": [each.name for each in chosen], "contenders": list(contenders)}
        allocations: Table = json.loads(_run(Path(folder), request))
        totals = _totals(Path(folder))
    imports: dict[str, float] = {
        contender: total
        for (name, contender, _), total in totals.items()
        if name == callgrind_worker.IMPORT
    }
    instructions = {
        each.name: {
            contender: _per_call(totals, each, contender) / each.rows
            for contender in allocations[each.name]
        }
        for each in chosen
    }
    return Counts(instructions, allocations, imports)


def count_hostile() -> Growth:
    """Count one call on each hostile text at each size.

    Raises:
        RuntimeError: valgrind is missing, or the counted process failed.
    """
    with tempfile.TemporaryDirectory(prefix="callgrind-") as folder:
        _run(Path(folder), {callgrind_worker.HOSTILE: [each.name for each in hostile.TEXTS]})
        totals = _totals(Path(folder))
    small, large = map(str, hostile.SIZES)
    return {
        each.name: (totals[each.name, small, 1], totals[each.name, large, 1])
        for each in hostile.TEXTS
    }


def _run(folder: Path, request: Mapping[str, Sequence[str]]) -> str:
    command = [
        "valgrind",
        "--tool=callgrind",
        "--instr-atstart=no",
        f"--callgrind-out-file={folder}/counts",
        sys.executable,
        "-m",
        callgrind_worker.__name__,
    ]
    # The interpreter's own switches must not count.
    plain = {name: value for name, value in os.environ.items() if not name.startswith("PYTHON")}
    try:
        done = subprocess.run(
            command,
            input=json.dumps(request),
            text=True,
            capture_output=True,
            cwd=native_library.ROOT,
            env={**plain, "PYTHONHASHSEED": "0"},
        )
    except FileNotFoundError:
        raise RuntimeError("valgrind is missing: install Debian's valgrind") from None
    if done.returncode != 0:
        raise RuntimeError(f"the counted process failed:\n{done.stderr}")
    return done.stdout


def _totals(folder: Path) -> _Totals:
    totals: _Totals = {}
    for file in folder.iterdir():
        text = file.read_text()
        label, total = _LABEL.search(text), _TOTAL.search(text)
        if label and total:
            totals[label[1], label[2], int(label[3])] = int(total[1])
    return totals


def _per_call(totals: _Totals, workload: Workload, contender: str) -> float:
    few, many = workload.calls, workload.calls * callgrind_worker.MORE
    difference = totals[workload.name, contender, many] - totals[workload.name, contender, few]
    return difference / (many - few)
