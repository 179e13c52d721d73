"""Fixtures: the simulator under test, its module, and fake command-line output for the parsers."""

from __future__ import annotations

import gc
from collections.abc import Iterator
from types import ModuleType

import pytest

from tests.support import reference
from tests.support.fake_cli import FakeCli
from veldarin_simulator import LiveObjects, Simulator, native_library

# The folders of the longest tests.
FIRST = ("page", "tooling", "packaging")
NO_LIVE_OBJECTS = LiveObjects(json_objects=0, text_buffers=0)


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """Begin with the longest tests, so that no worker is left alone with one at the end."""
    items.sort(key=lambda item: item.path.parent.name not in FIRST)


@pytest.fixture(scope="session")
def build() -> None:
    """End the run with one line if nothing is built."""
    try:
        native_library.load()
    except RuntimeError as error:
        pytest.exit(str(error), returncode=1)


@pytest.fixture
def simulator(build: None) -> Iterator[Simulator]:
    """A new simulator. The test fails if a provider failed or a json-c object or buffer leaked."""
    with Simulator(live=False) as simulator:
        yield simulator
        if simulator.live_objects != NO_LIVE_OBJECTS:
            gc.collect()  # a cycle may have kept something; too slow to be done after every test
        assert simulator.live_objects == NO_LIVE_OBJECTS, "not freed by the test's end"


@pytest.fixture
def module(simulator: Simulator) -> ModuleType:
    """`veldarin.modules.modules_util` on the simulator."""
    return simulator.module


@pytest.fixture(params=["module", "reference"])
def cli(request: pytest.FixtureRequest, monkeypatch: pytest.MonkeyPatch) -> Iterator[FakeCli]:
    """Fake command-line output for the parsers of the module and of the reference model."""
    parser = reference if request.param == "reference" else request.getfixturevalue("module")
    line = FakeCli(parser, monkeypatch)
    yield line
    line.shared.clear()


@pytest.fixture
def native_cli(module: ModuleType, monkeypatch: pytest.MonkeyPatch) -> Iterator[FakeCli]:
    """Fake command-line output for the parsers of the module."""
    line = FakeCli(module, monkeypatch)
    yield line
    line.shared.clear()
