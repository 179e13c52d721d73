"""The pytest plugin: what a project's tests see, each run in a process of its own."""

from __future__ import annotations

import re

import pytest

from tests.support.isolated import ROOT

pytest_plugins = ["pytester"]
pytestmark = pytest.mark.workstation_only("projects run their tests on a workstation")

# `BFD` is an output with one session.
HEAD = """
from __future__ import annotations
import pytest
from veldarin.modules import modules_util
from veldarin_simulator import Simulator

BFD = "summary\\npeer 192.0.2.1 interface port1\\n"
"""
PLUGIN = "veldarin_simulator.pytest_plugin"


@pytest.fixture
def project(
    build: None, pytester: pytest.Pytester, monkeypatch: pytest.MonkeyPatch
) -> pytest.Pytester:
    """A project whose pytest loads the plugin, as the installed entry point makes it."""
    monkeypatch.setenv("PYTHONPATH", str(ROOT))
    monkeypatch.setenv("PYTEST_ADDOPTS", f"-p {PLUGIN} -p xdist")
    monkeypatch.setenv("PYTEST_DISABLE_PLUGIN_AUTOLOAD", "1")  # some are slow to import
    return pytester


def run(project: pytest.Pytester, tests: str, *options: str) -> pytest.RunResult:
    project.makepyfile(HEAD + tests)
    return project.runpytest_subprocess(*options, timeout=120)


def test_each_test_has_fresh_replies_log_and_sessions(project: pytest.Pytester) -> None:
    result = run(
        project,
        """
@pytest.mark.parametrize("number", [1, 2])
def test_nothing_is_left(simulator: Simulator, number: int) -> None:
    assert simulator.call_log == []
    assert simulator.shared_sessions == {}
    assert modules_util.list_switch_port_statistics(None) is None
    simulator.set_reply("build_switch_port_statistics", [number])
    simulator.set_reply("get_cli_cmd_output", BFD)
    simulator.serial_number = b"ANOTHER"
    assert modules_util.list_switch_port_statistics(None) == [number]
    modules_util.get_bfd_neighbor("get router info bfd neighbor")
    assert [*simulator.shared_sessions] == ["192.0.2.1_port1"]

def test_next_test_has_no_sessions(simulator: Simulator) -> None:
    simulator.set_reply("get_cli_cmd_output", "")
    assert modules_util.get_bfd_neighbor("") == {}
    assert modules_util.serial_number_ascii() == b"SIMULATOR0000001"
""",
    )
    result.assert_outcomes(passed=3)


def test_sessions_are_cleared_under_a_patched_command(project: pytest.Pytester) -> None:
    """A test may replace the module's functions, and its patches may outlive the fixture."""
    result = run(
        project,
        """
def test_patches(monkeypatch: pytest.MonkeyPatch, simulator: Simulator) -> None:
    monkeypatch.setattr(modules_util, "get_cli_command_output", lambda command: BFD)
    assert [*modules_util.get_bfd_neighbor("")] == ["192.0.2.1_port1"]
    monkeypatch.setattr(modules_util, "get_bfd_neighbor", None)

def test_next(simulator: Simulator) -> None:
    assert simulator.shared_sessions == {}
    assert simulator.call_log == []
""",
    )
    result.assert_outcomes(passed=2)


def test_marker_selects_folder_beside_the_test(project: pytest.Pytester) -> None:
    for name in ("inner", "outer"):
        folder = project.mkdir(name)
        (folder / "build_switch_lg_state.json").write_text(f'["{name}"]')
    result = run(
        project,
        """
pytestmark = pytest.mark.scenario("outer")

def test_file(simulator: Simulator) -> None:
    assert modules_util.list_switch_lg_state() == ["outer"]
    assert modules_util.list_switch_lldp_state(None) is None  # in the default scenario only

@pytest.mark.scenario("inner")
def test_own(simulator: Simulator, veldarin_scenario: object) -> None:
    assert modules_util.list_switch_lg_state() == ["inner"]
    assert simulator.scenario == veldarin_scenario
""",
        "--strict-markers",
    )
    result.assert_outcomes(passed=2)


def test_without_marker_default_scenario_or_override_applies(project: pytest.Pytester) -> None:
    result = run(
        project,
        """
from veldarin_simulator import Scenario

def test_default(simulator: Simulator) -> None:
    assert modules_util.list_switch_lg_state()[0]["group"] == "lg1"
    assert {call.source for call in simulator.calls("build_switch_lg_state")} == {"recorded"}

class TestOverride:
    @pytest.fixture
    def veldarin_scenario(self) -> Scenario:
        return Scenario({"build_switch_lg_state.json": b"[7]"})

    def test_own(self, simulator: Simulator) -> None:
        assert modules_util.list_switch_lg_state() == [7]
""",
    )
    result.assert_outcomes(passed=2)


def test_bad_scenario_is_one_line(project: pytest.Pytester) -> None:
    folder = project.mkdir("damaged")
    (folder / "build_switch_lg_state.json").write_text('[\n{"group": }]')
    result = run(
        project,
        """
@pytest.mark.scenario("damaged")
def test_damaged(simulator: Simulator) -> None: ...

@pytest.mark.scenario("missing")
def test_missing(simulator: Simulator) -> None: ...

@pytest.mark.scenario()
def test_unnamed(simulator: Simulator) -> None: ...
""",
    )
    result.assert_outcomes(errors=3)
    lines = result.stdout.str().splitlines()
    file = re.escape(f"{folder}/build_switch_lg_state.json")
    assert [line for line in lines if re.match(rf"{file}:2\b.*not JSON", line)]
    assert f"{project.path}/missing: no such file or directory" in lines
    assert "expected one folder: @pytest.mark.scenario(FOLDER)" in lines
    assert "Traceback" not in result.stdout.str()


def test_failing_assertion_lists_native_calls(project: pytest.Pytester) -> None:
    result = run(
        project,
        """
def test_call(simulator: Simulator) -> None:
    modules_util.list_switch_port_statistics("port2")
    modules_util.list_switch_lg_state()
    simulator.calls("build_switch_port_statistics").assert_called_once_with({"port_name": "port1"})
""",
    )
    result.assert_outcomes(failed=1)
    result.stdout.fnmatch_lines(
        [
            ">   *.assert_called_once_with({'port_name': 'port1'})".replace("'", '"'),
            "E   *build_switch_port_statistics: expected one call with {'port_name': 'port1'}, "
            "found 1 call; native calls:",
            "E   *> build_switch_port_statistics({'port_name': 'port2'})",
            "E   *  build_switch_lg_state({})",
        ]
    )
    result.stdout.no_fnmatch_line("*call_log.py*")


def test_failing_reply_fails_the_test(project: pytest.Pytester) -> None:
    result = run(
        project,
        """
def test_reply(simulator: Simulator) -> None:
    simulator.set_reply("build_switch_lg_state", lambda request: 1 / 0)
    assert modules_util.list_switch_lg_state() is None

def test_next(simulator: Simulator) -> None:
    assert modules_util.list_switch_lg_state()
""",
    )
    result.assert_outcomes(passed=2, errors=1)
    result.stdout.fnmatch_lines(["E   ZeroDivisionError: division by zero"])


def test_second_simulator_is_a_clear_error(project: pytest.Pytester) -> None:
    result = run(
        project,
        """
def test_second(simulator: Simulator) -> None:
    with pytest.raises(RuntimeError, match="another simulator is open in this process: use it"):
        Simulator(live=False)
    assert modules_util.list_switch_lg_state()
""",
    )
    result.assert_outcomes(passed=1)


def test_library_that_cannot_be_loaded_ends_the_run(
    project: pytest.Pytester, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("MODULES_UTIL_BUILD", "build/nowhere")
    result = run(project, "")
    assert result.ret == pytest.ExitCode.USAGE_ERROR
    (line,) = result.stderr.str().splitlines()
    assert line.startswith("ERROR: the simulator is not built in ")
    assert line.endswith("(-p no:veldarin_simulator runs without it)")


def test_workers_have_simulators_of_their_own(project: pytest.Pytester) -> None:
    result = run(
        project,
        """
@pytest.mark.parametrize("number", range(6))
def test_number(simulator: Simulator, number: int) -> None:
    simulator.set_reply("build_switch_lg_state", number)
    assert modules_util.list_switch_lg_state() == number
    assert len(simulator.calls("build_switch_lg_state")) == 1
""",
        "-n",
        "2",
    )
    result.assert_outcomes(passed=6)
