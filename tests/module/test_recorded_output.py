"""Output of a routing daemon's shell, recorded in the lab, in the parsers of the module and of the
reference model. tests/simulator/test_providers.py covers the simulator's own layout."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import pytest

from tests.support.fake_cli import FakeCli
from veldarin_simulator.providers import bfd

CAPTURES = Path(__file__).parents[1] / "data" / "cli_output"


def captured(name: str) -> str:
    return (CAPTURES / f"{name}.txt").read_text()


def routed(cli: FakeCli, name: str) -> Any:
    """The result of parsing the daemon's text of a route, unchanged."""
    cli.set_output(captured(name))
    return cli.parser.get_routing_table_result("captured")


# capture: prefix, distance, owner, next hops
ROUTES = {
    "route-equal-cost": (
        "10.3.0.0/16",
        "1",
        "static",
        [("*", "198.51.100.2", "port2"), ("*", "198.51.100.6", "port3")],
    ),
    "route6-equal-cost": (
        "2001:db8:3::/48",
        "1",
        "static",
        [("*", "2001:db8:23::2", "port2"), ("*", "2001:db8:24::2", "port3")],
    ),
    "route-connected": ("192.0.2.0/24", "0", "connected", [("*", "directly", "port1")]),
    # The weight is where a port would be: "* unreachable (blackhole), weight 1".
    "route-blackhole": ("203.0.113.0/24", "1", "static", [("*", "unreachable", "1")]),
}


@pytest.mark.parametrize("name", ROUTES)
def test_recorded_route_is_parsed(cli: FakeCli, name: str) -> None:
    prefix, distance, owner, hops = ROUTES[name]
    table = [{"main": main, "ip": ip, "interface": port} for main, ip, port in hops]
    read = routed(cli, name)
    assert read.pop("lastUpdate").startswith("00:00:0")
    assert read == {
        "entry": prefix,
        "distance": distance,
        "metric": "0",
        "other": f'  Known via "{owner}",  best',
        "table": table,
    }


@pytest.mark.parametrize(
    "name",
    [
        "route-two-entries",  # the first is not the best, which would be its fourth field
        "route-prohibited",  # a next hop without a comma
    ],
)
def test_recorded_unsupported_route_raises_index_error(cli: FakeCli, name: str) -> None:
    with pytest.raises(IndexError):
        routed(cli, name)


def test_recorded_route_of_two_entries_gives_best(cli: FakeCli) -> None:
    _, best = captured("route-two-entries").split("\n\n")
    cli.set_output(best)
    read = cli.parser.get_routing_table_result("captured")
    assert read["distance"] == "5"
    assert read["table"] == [{"main": "*", "ip": "198.51.100.5", "interface": "port2"}]


def test_recorded_down_session_is_parsed_with_diagnostic(cli: FakeCli) -> None:
    sessions = bfd.parse(captured("bfd-peers-cut"))
    assert len(sessions) == 4
    read: dict[str, Any] = {}
    for session in sessions:
        cli.set_output(bfd.render([session]))
        cli.parser.get_bfd_neighbor("captured", read)
    states = {name: (entry["status"], entry["diagnostics"]) for name, entry in read.items()}
    down = ("down", "control detection time expired")
    assert states == {
        "10.1.0.1_default": ("up", "ok"),
        "198.51.100.5_port2": down,
        "2001:db8:24::1_port2": down,
        "198.51.100.1_port1": ("up", "ok"),
    }
    assert read["198.51.100.5_port2"]["downtime"] == "2 second(s)"
    assert read["10.1.0.1_default"]["minimum_ttl"] == "254"
    assert read["10.1.0.1_default"]["multihop"] == "yes"
    assert read["198.51.100.1_port1"]["remote_timers"] == {
        "detect-multiplier": "3",
        "receive_interval": "110ms",
        "transmission_interval": "120ms",
    }
