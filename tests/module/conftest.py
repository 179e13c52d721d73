"""Fixtures of the module's own tests."""

from __future__ import annotations

import gc
from collections.abc import Iterator
from types import ModuleType

import pytest

from tests.support.module_patch import Patch
from tests.support.query_cases import QUERY_CASES, Query
from veldarin_simulator import Simulator


@pytest.fixture(params=QUERY_CASES, ids=str)
def query(
    request: pytest.FixtureRequest, simulator: Simulator, monkeypatch: pytest.MonkeyPatch
) -> Query:
    """Each call of a query."""
    return Query(request.param, simulator, monkeypatch)


@pytest.fixture
def patch(module: ModuleType, monkeypatch: pytest.MonkeyPatch) -> Patch:
    """Rebinds and deletes globals of the module until the test ends."""
    return Patch(module, monkeypatch)


@pytest.fixture(scope="module")
def frozen_heap() -> Iterator[None]:
    """Exclude existing objects from garbage collection, which is then fast."""
    gc.collect()
    gc.freeze()
    yield
    gc.unfreeze()
