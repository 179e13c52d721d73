"""Counts instructions and allocations per row, which a busy machine does not change.

`count` and `count_hostile` start this file as a process under callgrind, with a JSON request on
standard input. The process runs each competitor n times and then 5n times; the difference excludes
what happens only once. Hash randomization and the garbage collector are off. Callgrind writes each
count to a file under a label; the process prints the labels and, in the last line, the allocations.

`count` can also start it on the MIPS interpreter. The emulator then writes how many instructions it
has executed whenever the process makes a request of callgrind.
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
_LABEL = re.compile(r"^desc: Trigger: Client Request: (.*)$", re.MULTILINE)
_TOTAL = re.compile(r"^(?:totals|summary): (\d+)", re.MULTILINE)

# By workload and competitor: a figure per row, or per call.
Table = dict[str, dict[str, float]]
# By hostile text: instructions of one call at the smaller and at the larger size.
Growth = dict[str, tuple[int, int]]
# Workload, competitor and number of calls; or hostile text, size and 1. In text, joined by slashes.
_Label = tuple[str, str, int]
Totals = dict[_Label, int]  # instructions
_Request = Mapping[str, Sequence[str]]


@dataclass(frozen=True)
class InstructionCounts:
    """Instructions and allocations; `imports` are the instructions of one import."""

    instructions: Table
    allocations: Table
    imports: dict[str, float]


def count(
    chosen: Sequence[Workload], names: Sequence[str], *, on_mips: bool = False
) -> InstructionCounts:
    """Return the counts of the named competitors and of the lower bounds.

    Raises:
        RuntimeError: valgrind is missing, or the process failed.
    """
    request = {"workloads": [each.name for each in chosen], "competitors": list(names)}
    output, totals = (_run_emulator if on_mips else _run_callgrind)(request)
    allocations: Table = json.loads(output.splitlines()[-1])
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


def _run_callgrind(request: _Request) -> tuple[str, Totals]:
    with tempfile.TemporaryDirectory(prefix="callgrind-") as folder:
        command = ["valgrind", "--tool=callgrind", "--instr-atstart=no"]
        command += [f"--callgrind-out-file={folder}/counts", sys.executable]
        try:
            output = _run(command, request)
        except FileNotFoundError:
            raise RuntimeError("valgrind is missing: install Debian's valgrind") from None
        return output, _read_totals(Path(folder))


def _run_emulator(request: _Request) -> tuple[str, Totals]:
    with tempfile.TemporaryDirectory(prefix="emulator-") as folder:
        requests = Path(folder, "requests")
        command = ["cross/mips/count-instructions", str(requests), "python"]
        output = _run(command, request, MODULES_UTIL_BUILD="build/mips")
        return output, read_requests(requests.read_text(), output.splitlines()[:-1])


def _run(interpreter: Sequence[str], request: _Request, **environment: str) -> str:
    """Run this file as a process and return its output."""
    # PYTHON… variables would change the counts.
    inherited = {name: value for name, value in os.environ.items() if name[:6] != "PYTHON"}
    done = subprocess.run(
        [*interpreter, "-m", __name__],
        input=json.dumps(request),
        text=True,
        capture_output=True,
        cwd=native_library.ROOT,
        env={**inherited, **environment, "PYTHONHASHSEED": "0"},
    )
    if done.returncode != 0:
        raise RuntimeError(f"the process that counts instructions failed:\n{done.stderr}")
    return done.stdout


def read_requests(text: str, labels: Sequence[str]) -> Totals:
    """Return the counts that the emulator wrote, by their labels.

    Each line has the address of a request and the number of instructions executed before it. The
    process starts the instrumentation, zeroes and dumps the count once for each label, and stops
    the instrumentation, from one address each. So the second line has the address of zeroing, and
    the line below each of these is that of dumping.

    Raises:
        RuntimeError: There are more or fewer counts than labels.
    """
    lines = [line.split() for line in text.splitlines()]
    totals = [
        int(end) - int(begin)
        for (address, begin), (_, end) in zip(lines, lines[1:])
        if address == lines[1][0]
    ]
    if len(totals) != len(labels):
        raise RuntimeError(f"the emulator wrote {len(totals)} counts, expected {len(labels)}")
    return {_parse_label(label): total for label, total in zip(labels, totals)}


def _read_totals(folder: Path) -> Totals:
    totals: Totals = {}
    for file in folder.iterdir():
        text = file.read_text()
        label, total = _LABEL.search(text), _TOTAL.search(text)
        if label and total:
            totals[_parse_label(label[1])] = int(total[1])
    return totals


def _parse_label(label: str) -> _Label:
    workload, name, times = label.rsplit("/", 2)
    return workload, name, int(times)


# ------------------------------------------------------------------ the process that counts


def _count_instructions(call: Call, times: int, label: str) -> None:
    print(label)  # the emulator writes counts without labels, in this order
    call.count_instructions(times, label)


def _count_call(repeat: Any, call: Call, times: int, label: str) -> None:
    call.time(2)  # fills caches, free lists and memory pools
    repeat.instrument(True)
    for each in (times, times * _FACTOR):
        _count_instructions(call, each, f"{label}/{each}")
    repeat.instrument(False)


def _count_imports(repeat: Any, names: list[str]) -> None:
    competitors.load_siblings()
    for name in (MODULE, CYTHON):
        if name in names:
            repeat.instrument(True)
            call = Call(import_module, (IMPORT_NAMES[name],))
            _count_instructions(call, 1, f"{_IMPORT}/{name}/1")
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
            _count_instructions(call, 1, f"{text.name}/{size}/1")
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
