"""First level: each test sets the replies that it needs."""

from __future__ import annotations

from typing import Any

from veldarin_simulator import Simulator


def test_ports_are_sorted_by_errors(app: Any, simulator: Simulator) -> None:
    simulator.set_reply(
        "build_switch_port_statistics",
        [
            {"port_name": "port1", "errin": 0, "errout": 1},
            {"port_name": "port2", "errin": 3, "errout": 4},
        ],
    )
    assert app.get("/ports").json == [
        {"port": "port2", "errors": 7},
        {"port": "port1", "errors": 1},
    ]


def test_ports_query_names_the_port(app: Any, simulator: Simulator) -> None:
    app.get("/ports?port=port2")
    simulator.calls("build_switch_port_statistics").assert_called_once_with({"port_name": "port2"})


def test_neighbors_without_output_are_unavailable(app: Any, simulator: Simulator) -> None:
    simulator.set_reply("get_cli_cmd_output", None)
    app.get("/neighbors", status=503)
    simulator.calls("get_cli_cmd_output").assert_called_once_with("get system arp")
