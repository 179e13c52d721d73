"""Fixtures: the built wheels, and environments in which they are installed."""

from __future__ import annotations

import shutil
from pathlib import Path

import pytest

from tests.support.environment import BASE, Environment, create
from tests.support.isolated import ROOT


@pytest.fixture(scope="session")
def wheels() -> dict[str, Path]:
    """Return the built wheels by the name of their distribution."""
    found = {file.name.partition("-")[0]: file for file in (ROOT / "build/wheels").glob("*.whl")}
    assert {*found} == {"veldarin_simulator", "veldarin_modules_util"}, "run: make wheels"
    return found


@pytest.fixture(scope="session")
def base(wheels: dict[str, Path], tmp_path_factory: pytest.TempPathFactory) -> Environment:
    """An environment with the simulator, without extras."""
    folder = tmp_path_factory.mktemp("base")
    return create(folder, wheels["veldarin_simulator"], names=BASE)


@pytest.fixture(scope="session")
def module_alone(wheels: dict[str, Path], tmp_path_factory: pytest.TempPathFactory) -> Environment:
    """An environment with the module and without the simulator."""
    folder = tmp_path_factory.mktemp("module")
    return create(folder, wheels["veldarin_modules_util"], names=BASE)


@pytest.fixture(scope="session")
def project(wheels: dict[str, Path], tmp_path_factory: pytest.TempPathFactory) -> Environment:
    """The environment of a project that tests against the simulator, and a copy of examples/gui."""
    folder = tmp_path_factory.mktemp("project")
    environment = create(folder, wheels["veldarin_simulator"])
    shutil.copytree(ROOT / "examples" / "gui", folder / "gui")
    return Environment(environment.path, folder / "gui")
