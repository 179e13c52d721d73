"""Second level: a folder holds the replies."""

from __future__ import annotations

from typing import Any

import pytest

from veldarin_simulator import Simulator

pytestmark = pytest.mark.scenario("two_ports")


def test_ports_come_from_the_scenario(app: Any, simulator: Simulator) -> None:
    assert app.get("/ports?port=port1").json == [{"port": "port1", "errors": 2}]


def test_neighbors_come_from_the_scenario(app: Any, simulator: Simulator) -> None:
    assert app.get("/neighbors").json == [
        {"address": "192.0.2.10", "port": "port1"},
        {"address": "192.0.2.11", "port": "port2 vlan10"},
    ]
