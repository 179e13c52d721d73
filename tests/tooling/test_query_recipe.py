"""CONTRIBUTING's recipe for a new query, followed literally in a copy of the tree."""

from __future__ import annotations

import json
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from tests.support import isolated

ROOT = isolated.ROOT
# "In `FILE`, below `TEXT`, ...", then the block to insert; without TEXT the block is a new file.
STEP = re.compile(r"^In `([^`]+)`,(?: below `([^`]+)`,)?.*?^```\w+\n(.*?)^```$", re.M | re.S)

CALLS = """
import json
from veldarin_simulator import Scenario, Simulator
from veldarin_simulator.console.function_index import function_index
from veldarin_simulator.stub import functions

with Simulator() as simulator:
    module = simulator.module
    query = module.list_switch_poe_state
    outcome = {"one": query("port1"), "all": query(None)}
    outcome["request"] = simulator.call_log[0].request
    try:
        query(5)
    except TypeError as error:
        outcome["error"] = [str(error), error.__traceback__.tb_next.tb_lineno]
    outcome["bound"] = [name for name in vars(module) if name.startswith("list_switch_poe")]
forms = [one for part in function_index(functions(), {}) for one in part["functions"]]
(form,) = [one for one in forms if one["name"] == "list_switch_poe_state"]
outcome["form"] = form["example_call"]
print(json.dumps(outcome))
"""


def steps() -> list[tuple[str, str, str]]:
    section = (ROOT / "CONTRIBUTING.md").read_text().partition("## Adding a query")[2]
    return STEP.findall(section)


def apply(root: Path, file: str, anchor: str, block: str) -> None:
    path = root / file
    if not anchor:
        assert not path.exists()
        path.write_text(block)
        return
    lines = path.read_text().splitlines(keepends=True)
    (number,) = [number for number, line in enumerate(lines, 1) if anchor in line]
    while lines[number].startswith("#") and lines[number - 1].startswith("#"):
        number += 1  # the comment of a section
    path.write_text("".join([*lines[:number], block, *lines[number:]]))


@pytest.mark.workstation_only("builds with the workstation's compiler")
@pytest.mark.skipif("LD_PRELOAD" in os.environ, reason="the copy is built without the sanitizer")
def test_query_recipe_gives_a_working_query(tmp_path: Path) -> None:
    assert len(steps()) == 5
    root = tmp_path / "copy"
    for name in ("veldarin", "veldarin_simulator", "util", "migbase", "cmake", "tests", "checks"):
        shutil.copytree(ROOT / name, root / name, ignore=shutil.ignore_patterns("__pycache__"))
    shutil.copytree(ROOT / "benchmarks", root / "benchmarks")
    shutil.copytree(ROOT / "tools", root / "tools")
    (root / "docs").mkdir()
    shutil.copy(ROOT / "CMakeLists.txt", root)
    for file, anchor, block in steps():
        apply(root, file, anchor, block)

    environment = {**os.environ, "PYTHONPATH": str(root), "MODULES_UTIL_BUILD": str(root / "build")}
    tools = ROOT / ".venv" / "bin"

    def run(*command: str | Path) -> str:
        done = subprocess.run(command, cwd=root, env=environment, capture_output=True, text=True)
        assert done.returncode == 0, done.stdout + done.stderr
        return done.stdout

    run(
        *(tools / "cmake", "-G", "Ninja", "-S", root, "-B", root / "build"),
        f"-DCMAKE_MAKE_PROGRAM={tools / 'ninja'}",
        f"-DPython_EXECUTABLE={sys.executable}",
        "-DCMAKE_BUILD_TYPE=Debug",
    )
    targets = ("modules_util", "simulator", "veldarin_simulator/siblings/all")
    run(tools / "cmake", "--build", root / "build", "--target", *targets)
    assert json.loads(run(sys.executable, "-W", "ignore", "-c", CALLS)) == {
        "one": [{"port_name": "port1", "watts": 4.5}],
        "all": [{"port_name": "port1", "watts": 4.5}, {"port_name": "port2", "watts": 0.0}],
        "request": '{"port_name":"port1"}',
        "error": ["Argument 'port_name' has incorrect type (expected str, got int)", 438],
        "bound": ["list_switch_poe_state"],
        "form": {"arguments": ["port1"], "keywords": {}},
    }
    run(sys.executable, "-m", "tools.generate_function_docs")
    page = (root / "docs" / "functions.md").read_text()
    assert "[`list_switch_poe_state`](#list_switch_poe_state)" in page
