"""Fixtures: one headless Chromium and one console for all tests of the page.

Without a browser the tests are skipped with a reason. They leave screenshots of the page's states
in build/screenshots.
"""

from __future__ import annotations

import os
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest

from tests.support.browser import CHROMIUM, PAGE_SCENARIO, WIDE, Api, Visit
from tests.support.console import SCENARIO


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """Keep the tests on one worker, because they share the browser."""
    for item in items:
        if item.path.is_relative_to(Path(__file__).parent):
            item.add_marker(pytest.mark.xdist_group("browser"))


@pytest.fixture(scope="session")
def browser() -> Iterator[Any]:
    """The browser."""
    reason = "playwright is not installed"
    playwright = pytest.importorskip("playwright.sync_api", reason=reason)
    if CHROMIUM is None:
        pytest.skip("no Chromium: `tools/bootstrap browser` installs it")
    if os.environ.get("LD_PRELOAD"):
        pytest.skip("a browser does not run with the sanitizer preloaded")
    with playwright.sync_playwright() as driver:
        # The sandbox needs rights that a container does not have.
        browser = driver.chromium.launch(executable_path=CHROMIUM, args=["--no-sandbox"])
        yield browser
        browser.close()


@pytest.fixture(scope="session")
def page_server(
    server_process: Any, tmp_path_factory: pytest.TempPathFactory
) -> Iterator[tuple[str, Any]]:
    """The address and the directory of a console with the scenarios `page` and `other`."""
    directory = tmp_path_factory.mktemp("console")
    PAGE_SCENARIO.save(directory / "page")
    SCENARIO.save(directory / "state" / "scenarios" / "other")
    with server_process(directory, "--scenario", str(directory / "page")) as server:
        yield server.url, directory


@pytest.fixture
def url(page_server: Any) -> str:
    """The address of the console, with the scenario as it was loaded."""
    url, _ = page_server
    api = Api(url)
    status = api("GET", "/api/status")
    if status["modified"] or status["scenario"] != "page":
        api("PUT", "/api/scenarios/current", {"name": "page"})
    return str(url)


@pytest.fixture
def open_window(browser: Any) -> Iterator[Any]:
    """Opens a window: (address, settings of the context) to a `Visit`."""
    contexts, visits = [], []

    def open_window(url: str, **settings: Any) -> Visit:
        context = browser.new_context(
            **{"viewport": WIDE, "color_scheme": "light", "reduced_motion": "reduce", **settings}
        )
        contexts.append(context)
        visits.append(Visit(context.new_page(), url))
        return visits[-1]

    yield open_window
    for context in contexts:
        context.close()
    assert [visit.errors for visit in visits if visit.errors] == []


@pytest.fixture
def visit(open_window: Any, url: str) -> Visit:
    """A window of the page."""
    visited: Visit = open_window(url)
    return visited
