"""Fixtures of the module's own tests."""

from __future__ import annotations

import pytest

from tests.support.query_cases import QUERY_CASES, Query
from veldarin_simulator import Simulator


@pytest.fixture(params=QUERY_CASES, ids=str)
def query(
    request: pytest.FixtureRequest, simulator: Simulator, monkeypatch: pytest.MonkeyPatch
) -> Query:
    """Each call of a query."""
    return Query(request.param, simulator, monkeypatch)
