"""Third level: the replies were recorded on a device."""

from __future__ import annotations

from typing import Any

import pytest

from veldarin_simulator import Simulator

pytestmark = pytest.mark.scenario("recorded")


def test_ports_of_the_device_have_no_errors(app: Any, simulator: Simulator) -> None:
    rows = app.get("/ports").json
    assert {"port1", "port2"} <= {row["port"] for row in rows}
    assert not [row for row in rows if row["errors"]]


def test_neighbors_of_the_device_are_listed(app: Any, simulator: Simulator) -> None:
    assert app.get("/neighbors").json == [
        {"address": "192.0.2.10", "port": "port1"},
        {"address": "198.51.100.20", "port": "port2"},
    ]
    assert simulator.calls("get_cli_cmd_output").arguments == ["get system arp"]
