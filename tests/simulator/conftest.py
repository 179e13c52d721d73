"""Fixtures of the simulator's tests."""

from __future__ import annotations

import importlib
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

from tests.simulator.native import Native
from veldarin_simulator import Reply, Scenario, Simulator, state_dir
from veldarin_simulator.providers.cli_commands import CommandRunner
from veldarin_simulator.scenario import DEFAULT_SCENARIO


@pytest.fixture(autouse=True)
def state_directory(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """Keep the tests out of the user's state directory."""
    path = tmp_path / "state"
    monkeypatch.setenv(state_dir.VARIABLE, str(path))
    return path


@pytest.fixture
def native(simulator: Simulator) -> Native:
    """The native services."""
    return Native()


@pytest.fixture
def json_object(simulator: Simulator) -> Any:
    """The class JSONObject of the sibling `util.json`."""
    return importlib.import_module("util.json").JSONObject


@pytest.fixture
def run_command() -> Callable[[bytes], Reply]:
    """Run a command without user scenario."""
    return CommandRunner(Scenario(), Scenario.load(DEFAULT_SCENARIO), live=True).run


@pytest.fixture
def no_bfd_sessions() -> Iterator[None]:
    """Clear the dictionary that BFD calls share, before and after the test."""

    def clear() -> None:
        with Simulator(live=False) as simulator:
            simulator.set_reply("get_cli_cmd_output", "")
            simulator.module.get_bfd_neighbor("").clear()

    clear()
    yield
    clear()
