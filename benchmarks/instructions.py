"""Counts instructions and allocations per row, which a busy machine does not change.

`count` and `count_hostile` start this file as a process under callgrind, with a JSON request on
standard input. The process runs each competitor n times and then 5n times; the difference excludes
what happens only once. Hash randomization and the garbage collector are off. Callgrind writes each
count to a file under a label; the process prints the allocations.
"""

from __future__ import annotations

import gc
import json
import os
import re
import subprocess
import sys
import tempfile
from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from importlib import import_module
from pathlib import Path
from typing import Any

from benchmarks import competitors, hostile, workloads
from benchmarks.competitors import CYTHON, IMPORT_NAMES, MODULE, load_extension
from benchmarks.runner import Call, Runner
from benchmarks.workloads import Workload
from veldarin_simulator import Simulator, native_library

_FACTOR = 5
# The interpreter caches a Python function's global names after that many calls (ceval.c).
_HOT = 1024
_IMPORT = "import"
_LABEL = re.compile(r"^desc: Trigger: Client Request: (.*)/(.*)/(\d+)$", re.MULTILINE)
_TOTAL = re.compile(r"^(?:totals|summary): (\d+)", re.MULTILINE)

# By workload and competitor: a figure per row, or per call.
Table = dict[str, dict[str, float]]
# By hostile text: instructions of one call at the smaller and at the larger size.
Growth = dict[str, tuple[int, int]]
# By workload, competitor and number of calls; by hostile text, size and 1: instructions.
_Totals = dict[tuple[str, str, int], int]


@dataclass(frozen=True)
class InstructionCounts:
    """Instructions and allocations; `imports` are the instructions of one import."""

    instructions: Table
    allocations: Table
    imports: dict[str, float]


def count(chosen: Sequence[Workload], names: Sequence[str]) -> InstructionCounts:
    """Return the counts of the named competitors and of the lower bounds.

    Raises:
        RuntimeError: valgrind is missing, or the process failed.
    """
    request = {"workloads": [each.name for each in chosen], "competitors": list(names)}
    output, totals = _run_callgrind(request)
    allocations: Table = json.loads(output)
    imports: dict[str, float] = {
        name: total for (workload, name, _), total in totals.items() if workload == _IMPORT
    }
    instructions: Table = {}
    for each in chosen:
        few, many = each.calls, each.calls * _FACTOR
        instructions[each.name] = {
            name: (totals[each.name, name, many] - totals[each.name, name, few])
            / (many - few)
            / each.rows
            for name in allocations[each.name]
        }
    return InstructionCounts(instructions, allocations, imports)


def count_hostile() -> Growth:
    """Count one call on each hostile text at each size.

    Raises:
        RuntimeError: valgrind is missing, or the process failed.
    """
    _, totals = _run_callgrind({"hostile": [each.name for each in hostile.TEXTS]})
    small, large = map(str, hostile.SIZES)
    return {
        each.name: (totals[each.name, small, 1], totals[each.name, large, 1])
        for each in hostile.TEXTS
    }


def _run_callgrind(request: Mapping[str, Sequence[str]]) -> tuple[str, _Totals]:
    # PYTHON… variables would change the counts.
    environment = {name: value for name, value in os.environ.items() if name[:6] != "PYTHON"}
    with tempfile.TemporaryDirectory(prefix="callgrind-") as folder:
        command = ["valgrind", "--tool=callgrind", "--instr-atstart=no"]
        command += [f"--callgrind-out-file={folder}/counts", sys.executable, "-m", __name__]
        try:
            done = subprocess.run(
                command,
                input=json.dumps(request),
                text=True,
                capture_output=True,
                cwd=native_library.ROOT,
                env={**environment, "PYTHONHASHSEED": "0"},
            )
        except FileNotFoundError:
            raise RuntimeError("valgrind is missing: install Debian's valgrind") from None
        if done.returncode != 0:
            raise RuntimeError(f"the process under callgrind failed:\n{done.stderr}")
        return done.stdout, _read_totals(Path(folder))


def _read_totals(folder: Path) -> _Totals:
    totals: _Totals = {}
    for file in folder.iterdir():
        text = file.read_text()
        label, total = _LABEL.search(text), _TOTAL.search(text)
        if label and total:
            totals[label[1], label[2], int(label[3])] = int(total[1])
    return totals


# ------------------------------------------------------------------ the process under callgrind


def _count_call(repeat: Any, call: Call, times: int, label: str) -> None:
    call.time(2)  # fills caches, free lists and memory pools
    repeat.instrument(True)
    for each in (times, times * _FACTOR):
        call.count_instructions(each, f"{label}/{each}")
    repeat.instrument(False)


def _count_imports(repeat: Any, names: list[str]) -> None:
    competitors.load_siblings()
    for name in (MODULE, CYTHON):
        if name in names:
            repeat.instrument(True)
            call = Call(import_module, (IMPORT_NAMES[name],))
            call.count_instructions(1, f"{_IMPORT}/{name}/1")
            repeat.instrument(False)


def _count_hostile(repeat: Any, simulator: Simulator, names: list[str]) -> None:
    module: Any = simulator.module
    functions = {each.function: getattr(module, each.function) for each in hostile.TEXTS}
    repeat.instrument(True)
    for text in hostile.TEXTS:
        if text.name not in names:
            continue
        for size in hostile.SIZES:
            output = text.output(size)
            if text.function == hostile.RUNNER:
                simulator.set_fixed_reply(workloads.CLI, output)
            else:
                # The native runner delivers no surrogates.
                module.get_cli_command_output = lambda _command, output=output: output
            call = Call(functions[text.function], text.arguments(), fails=text.fails)
            if size == min(hostile.SIZES):
                call.time(1)  # fills caches
            call.count_instructions(1, f"{text.name}/{size}/1")
    repeat.instrument(False)


def _heat_python_functions(module: Any) -> None:
    """Call the Python functions under every competitor until a further call changes nothing."""
    value = {"key": "text"}
    for _ in range(_HOT + 1):
        module.bytes_("text", "utf-8")
        module.text_(b"text", "utf-8")
        module.copy.deepcopy(value)


def _main() -> None:
    request: dict[str, list[str]] = json.load(sys.stdin)
    gc.disable()
    allocations: Table = {}
    with Simulator(live=False, track_buffers=False) as simulator:
        repeat = load_extension("bench_repeat")
        if "hostile" in request:
            _count_hostile(repeat, simulator, request["hostile"])
            return
        _count_imports(repeat, request["competitors"])
        _heat_python_functions(simulator.module)
        runner = Runner(simulator, request["competitors"])
        for workload in workloads.COUNTED:
            if workload.name in request["workloads"]:
                row = allocations[workload.name] = {}
                for name, call in runner.calls(workload).items():
                    _count_call(repeat, call, workload.calls, f"{workload.name}/{name}")
                    row[name] = call.allocations(workload.rows)
    json.dump(allocations, sys.stdout)


if __name__ == "__main__":
    _main()
