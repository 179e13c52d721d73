"""The counted process: runs workloads under callgrind, each contender n times and then 5n times,
and has every count written out under a label. Started by `benchmarks.instructions`.

Standard input says in JSON what to count; the blocks allocated per row go to standard output. If it
names hostile texts, those are counted instead: one call on each at each size."""

from __future__ import annotations

import gc
import json
import sys
from importlib import import_module
from typing import Any

from benchmarks import hostile, load, memory, workloads
from benchmarks.competitors import CYTHON, IMPORT_NAMES, PRODUCT, load_siblings
from benchmarks.runner import Bench, Call
from veldarin_simulator import Simulator

MORE = 5
IMPORT = "import"
HOSTILE = "hostile"


def _count(meter: Any, call: Call, times: int, label: str) -> None:
    # What is made once, free lists and the sizes of memory pools are no part of the figure.
    meter.time(*call.parts(), 2)
    meter.instrument(True)
    for each in (times, times * MORE):
        meter.instructions(*call.parts(), each, f"{label}/{each}")
    meter.instrument(False)


def _count_imports(meter: Any, names: list[str]) -> None:
    load_siblings()
    for name in (PRODUCT, CYTHON):
        if name in names:
            call = Call(import_module, (IMPORT_NAMES[name],))
            meter.instrument(True)
            meter.instructions(*call.parts(), 1, f"{IMPORT}/{name}/1")
            meter.instrument(False)


def _count_hostile(meter: Any, simulator: Simulator, names: list[str]) -> None:
    module: Any = simulator.module
    functions = {each.function: getattr(module, each.function) for each in hostile.TEXTS}
    meter.instrument(True)
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
                meter.time(*call.parts(), 1)  # what is made once does not count
            meter.instructions(*call.parts(), 1, f"{text.name}/{size}/1")
    meter.instrument(False)


def main() -> None:
    """Counts what is asked for."""
    asked: dict[str, list[str]] = json.load(sys.stdin)
    gc.disable()
    allocations: dict[str, dict[str, float]] = {}
    with Simulator(live=False, track_buffers=False) as simulator:
        meter = load.load("bench_repeat")
        if HOSTILE in asked:
            _count_hostile(meter, simulator, asked[HOSTILE])
            return
        _count_imports(meter, asked["contenders"])
        bench = Bench(simulator, asked["contenders"])
        for workload in workloads.COUNTED:
            if workload.name not in asked["workloads"]:
                continue
            of_workload = allocations[workload.name] = {}
            for name, call in bench.calls(workload).items():
                _count(meter, call, workload.calls, f"{workload.name}/{name}")
                of_workload[name] = memory.allocations(meter, call, workload.rows)
    json.dump(allocations, sys.stdout)


if __name__ == "__main__":
    main()
