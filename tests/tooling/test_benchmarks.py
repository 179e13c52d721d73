"""The competitors return what the module returns: otherwise a comparison would say nothing."""

from __future__ import annotations

import subprocess
import sys

import pytest

from benchmarks.competitors import EXTENSIONS
from veldarin_simulator import native_library

SCRIPT = """
from benchmarks import runner, workloads
from benchmarks.competitors import CYTHON, MODULE
from veldarin_simulator import Simulator

with Simulator(live=False, track_buffers=False) as simulator:
    runner = runner.Runner(simulator, [MODULE, CYTHON, "split", "regex"])
    for workload in workloads.COUNTED:
        runner.calls(workload)  # raises AssertionError for a result that differs
        print(workload.name)
"""


@pytest.mark.workstation_only("the Cython competitor is built for the workstation")
def test_competitors_return_the_results_of_the_module() -> None:
    if not list(EXTENSIONS.glob("modules_cython*")):
        pytest.skip("the Cython competitor is not built: make bench")
    command = [sys.executable, "-c", SCRIPT]
    done = subprocess.run(command, capture_output=True, text=True, cwd=native_library.ROOT)
    assert done.returncode == 0, done.stderr
    assert "list_bfd_neighbor, 10 neighbors" in done.stdout.splitlines()
