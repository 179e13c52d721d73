"""The project of docs/test-your-gui.md, in an environment of its own, without this checkout."""

from __future__ import annotations

import re
from pathlib import Path

import pytest

from tests.support.environment import Environment
from tests.support.isolated import ROOT
from veldarin_simulator import native_library

pytestmark = [
    pytest.mark.workstation_only("the wheels are built for the workstation"),
    pytest.mark.skipif(
        native_library.build_directory().name != "release", reason="the wheels are release builds"
    ),
    pytest.mark.xdist_group("wheels"),
]

PAGE = ROOT / "docs" / "test-your-gui.md"
TESTS = 7


def test_example_tests_pass(project: Environment) -> None:
    status, output = project.run("python", "-m", "pytest", "-q", "-p", "no:cacheprovider")
    assert status == 0, output
    assert f"\n{TESTS} passed in" in output


def test_example_tests_pass_in_workers_beside_asyncio(project: Environment, tmp_path: Path) -> None:
    """Also: the plugin comes from the wheel, and a coroutine's test uses the fixture."""
    (tmp_path / "test_async.py").write_text(f"""
import sys
from veldarin.modules import modules_util

async def test_async(simulator):
    simulator.set_reply("build_switch_lg_state", [1])
    assert modules_util.list_switch_lg_state() == [1]

def test_checkout_is_not_importable():
    assert not [path for path in sys.path if path.startswith({str(ROOT)!r})]
""")
    options = ["-q", "-n", "2", "-o", "asyncio_mode=auto", "-p", "no:cacheprovider"]
    status, output = project.run("python", "-m", "pytest", *options, "tests", tmp_path)
    assert status == 0, output
    assert f"\n{TESTS + 2} passed in" in output


def test_pytest_runs_without_the_plugin(project: Environment, tmp_path: Path) -> None:
    (tmp_path / "test_off.py").write_text(
        "def test_off(pytestconfig):\n"
        "    assert not pytestconfig.pluginmanager.has_plugin('veldarin_simulator')\n"
        "def test_fixture(simulator): pass\n"
    )
    options = ["-q", "-p", "no:veldarin_simulator", "-p", "no:cacheprovider"]
    status, output = project.run("python", "-m", "pytest", *options, folder=tmp_path)
    assert status == 1
    assert "fixture 'simulator' not found" in output
    assert "\n1 passed, 1 error in" in output


@pytest.mark.parametrize("command", ["mypy --cache-dir=/dev/null", "basedpyright"])
def test_example_has_no_type_errors(project: Environment, command: str) -> None:
    checker, *options = command.split()
    if checker == "basedpyright":
        options += ["--pythonpath", str(project.path / "bin" / "python")]
    status, output = project.run(checker, *options)
    assert status == 0, output
    assert "no issues found in 6 source files" in output or "0 errors, 0 warnings" in output


def shown_files() -> dict[str, str]:
    """The blocks of the page that follow a file's name, by that name."""
    shown = r"`(examples/gui/[^`]+)`:\n\n```\w*\n(.*?)^```$"
    return dict(re.findall(shown, PAGE.read_text(), re.MULTILINE | re.DOTALL))


def test_page_shows_files_of_the_example() -> None:
    assert len(shown_files()) == 7
    for name, text in shown_files().items():
        assert text == (ROOT / name).read_text(), name


def test_page_shows_message_of_a_failing_assertion(project: Environment, tmp_path: Path) -> None:
    (message,) = re.findall(r"^```\n(E .*?)^```$", PAGE.read_text(), re.MULTILINE | re.DOTALL)
    (tmp_path / "test_message.py").write_text(
        "from veldarin.modules import modules_util\n"
        "def test_message(simulator):\n"
        "    modules_util.list_switch_port_statistics('port2')\n"
        "    calls = simulator.calls('build_switch_port_statistics')\n"
        "    calls.assert_called_once_with({'port_name': 'port1'})\n"
    )
    _, output = project.run("python", "-m", "pytest", "-q", folder=tmp_path)
    assert message in output


def test_page_program_without_pytest_runs(base: Environment) -> None:
    page = PAGE.read_text().partition("## Without pytest")[2]
    (program,) = re.findall(r"^```python\n(.*?)^```$", page, re.MULTILINE | re.DOTALL)
    assert base.python(program) == "[{'group': 'lg1'}]\n"
