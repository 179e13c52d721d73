"""pytest plugin: fixtures `simulator` and `veldarin_scenario`, marker `scenario`.

pytest loads it before it collects tests, so that a test file, and the code under test, can import
`veldarin.modules.modules_util`. `-p no:veldarin_simulator` leaves it out.
"""

from __future__ import annotations

from collections.abc import Iterator
from functools import cache

import pytest

from veldarin_simulator import Scenario, ScenarioError, Simulator, native_library
from veldarin_simulator.scenario import DEFAULT_SCENARIO

_MARKER = "scenario(folder): the folder with the replies of `simulator`, relative to the test file"

_load_error: Exception | None = None
try:
    native_library.load()
except (OSError, RuntimeError) as error:
    _load_error = error


def pytest_configure(config: pytest.Config) -> None:
    """Register the marker, and end the run with one line if the library cannot be loaded."""
    config.addinivalue_line("markers", _MARKER)
    if _load_error:
        raise pytest.UsageError(f"{_load_error} (-p no:veldarin_simulator runs without it)")


@pytest.fixture
def veldarin_scenario(request: pytest.FixtureRequest) -> Scenario:
    """The scenario of the marker; without one, the default scenario. A project may override it."""
    marker = request.node.get_closest_marker("scenario")
    if marker is None:
        return _default_scenario()
    if len(marker.args) != 1 or marker.kwargs:
        pytest.fail("expected one folder: @pytest.mark.scenario(FOLDER)", pytrace=False)
    try:
        return Scenario.load(request.path.parent / marker.args[0])
    except ScenarioError as error:
        problem = str(error)
    pytest.fail(problem, pytrace=False)


@pytest.fixture
def simulator(veldarin_scenario: Scenario) -> Iterator[Simulator]:
    """A new simulator for each test, with the replies of `veldarin_scenario` and no others.

    Services without a reply return null, 0 or "". A reply that raises fails the test.
    """
    with Simulator(veldarin_scenario, live=False, track_buffers=False) as simulator:
        sessions = simulator.shared_sessions
        sessions.clear()
        yield simulator
        sessions.clear()


@cache
def _default_scenario() -> Scenario:
    return Scenario.load(DEFAULT_SCENARIO)
