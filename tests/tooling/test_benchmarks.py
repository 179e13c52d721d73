"""The competitors return what the module returns, and instructions on MIPS are counted exactly."""

from __future__ import annotations

import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from benchmarks import instructions, report
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


def test_competitors_return_the_results_of_the_module() -> None:
    if not list(EXTENSIONS.glob("modules_cython*")):
        pytest.skip("the Cython competitor is not built: make bench or make mips-bench")
    command = [sys.executable, "-c", SCRIPT]
    done = subprocess.run(command, capture_output=True, text=True, cwd=native_library.ROOT)
    assert done.returncode == 0, done.stderr
    assert "list_bfd_neighbor, 10 neighbors" in done.stdout.splitlines()


# ------------------------------------------------------------------ instructions on MIPS

# One line for each request: start, zero, dump, zero, dump, stop; start, zero, dump, stop.
REQUESTS = """\
3e0a10 1000
3e0ea4 1200
3e0f08 1250
3e0ea4 1300
3e0f08 1550
3e09ac 1700
3e0a10 2000
3e0ea4 2300
3e0f08 2307
3e09ac 2400
"""
# Makes the requests of two counts: of 20 and of 100 turns of a loop with five instructions, one of
# them a system call.
PROGRAM = """
    .macro request
    srl $0, $0, 13; srl $0, $0, 29; srl $0, $0, 3; srl $0, $0, 19
    or $13, $13, $13
    .endm
    .set noreorder
    .globl __start
__start:
    request
    li $s0, 20
    li $s1, 100
count:
    request
    move $s2, $s0
turn:
    addiu $s2, $s2, -1
    li $v0, 4020
    syscall
    bnez $s2, turn
    nop
    request
    bne $s0, $s1, count
    move $s0, $s1
    request
    li $v0, 4001
    li $a0, 0
    syscall
"""
AROUND_LOOP = 6  # the request before it, the start value, and four instructions of the next request


def test_requests_with_a_label_each_give_labeled_counts() -> None:
    labels = ["ARP, 1/2/module/20", "ARP, 1/2/module/100", "import/module/1"]
    assert instructions.read_requests(REQUESTS, labels) == {
        ("ARP, 1/2", "module", 20): 50,
        ("ARP, 1/2", "module", 100): 250,
        ("import", "module", 1): 7,
    }


@pytest.mark.parametrize("labels", [2, 4])
def test_requests_with_other_labels_raise(labels: int) -> None:
    with pytest.raises(RuntimeError, match=f"wrote 3 counts, expected {labels}"):
        instructions.read_requests(REQUESTS, ["ARP/module/1"] * labels)


@pytest.mark.workstation_only("counts the instructions of the emulator from outside")
def test_emulated_loop_has_the_exact_instructions(tmp_path: Path) -> None:
    if not (shutil.which("mips-linux-gnu-gcc") and shutil.which("qemu-mips")):
        pytest.skip("the emulator is not installed: make mips-bench")
    program, output = tmp_path / "program", tmp_path / "output"
    compiler = ["mips-linux-gnu-gcc", *"-nostdlib -static -xassembler - -o".split(), str(program)]
    subprocess.run(compiler, input=PROGRAM, text=True, check=True)
    counter = native_library.ROOT / "cross" / "mips" / "count-instructions"
    subprocess.run([counter, output, program], check=True)
    counts = instructions.read_requests(output.read_text(), ["loop/program/20", "loop/program/100"])
    assert counts == {("loop", "program", n): AROUND_LOOP + 5 * n for n in (20, 100)}


def test_mips_table_replaces_only_the_one_on_the_page(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    page = tmp_path / "page.md"
    page.write_text("above\n\n## Instructions on MIPS\n\nold\n\n## Notes\n\nbelow\n")
    monkeypatch.setattr(report, "PAGE", page)
    report.write_mips(report.Table("Instructions on MIPS", "New.", ["call"], [["ARP"]]))
    assert page.read_text() == (
        "above\n\n## Instructions on MIPS\n\nNew.\n\n| call |\n| --- |\n| ARP |\n"
        "\n## Notes\n\nbelow\n"
    )
