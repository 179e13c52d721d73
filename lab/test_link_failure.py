"""The module's results reflect that a link goes down and comes up."""

from __future__ import annotations

import pytest

from lab import topology
from lab.network_states import LINK_DOWN, STATES, Lab
from lab.topology import Rerouted, Session

AFFECTED = [row for row in topology.SESSIONS if row.uses_failing_link]
UNAFFECTED = [row for row in topology.SESSIONS if not row.uses_failing_link]
EXPIRED = "control detection time expired"


def session_id(row: Session) -> str:
    return f"{row.node} {row.peer}"


def mac(lab: Lab, state: str, node: str, address: str) -> str | None:
    entries = lab.observations(state)[node]["arp"]
    return next((entry["mac"] for entry in entries if entry["ipAddress"] == address), None)


@pytest.mark.parametrize("row", topology.REROUTED, ids=lambda row: f"{row.node} {row.address}")
def test_next_hop_over_failing_link_is_lost_and_restored(lab: Lab, row: Rerouted) -> None:
    def hops(state: str) -> list[tuple[str, ...]]:
        table = lab.observations(state)[row.node]["routes"][row.address]["table"]
        return sorted(tuple(hop.values()) for hop in table)

    def expected(gateways: tuple[str, ...], marker: str = "*") -> list[tuple[str, ...]]:
        ends = topology.link_ends(row.node)
        ports = {address: near.name for near, far in ends for address in far.addresses}
        return [(marker, gateway, ports[gateway]) for gateway in gateways]

    baseline = expected(row.baseline)
    link_down = expected(row.link_down, row.link_down_marker)
    assert [hops(state) for state in STATES] == [baseline, link_down, baseline]


@pytest.mark.parametrize("row", AFFECTED, ids=session_id)
def test_session_over_failing_link_expires_and_comes_up(lab: Lab, row: Session) -> None:
    baseline, down, restored = (lab.session(state, row) for state in STATES)
    assert (baseline["status"], down["status"], restored["status"]) == ("up", "down", "up")
    assert down["diagnostics"] == EXPIRED
    assert "uptime" not in down
    assert down["downtime"]
    # The daemon forgets the remote discriminator and keeps its own.
    assert down["remote_id"] == "0" != baseline["remote_id"]
    assert baseline["id"] == down["id"] == restored["id"]
    events = [
        (int(session["session_up_events"]), int(session["session_down_events"]))
        for session in (baseline, down, restored)
    ]
    ups, downs = events[0]
    assert events == [(ups, downs), (ups, downs + 1), (ups + 1, downs + 1)]


@pytest.mark.parametrize("row", UNAFFECTED, ids=session_id)
def test_session_with_another_path_does_not_change(lab: Lab, row: Session) -> None:
    for key in ("status", "diagnostics", "id", "remote_id", "session_down_events"):
        values = [lab.session(state, row)[key] for state in STATES]
        assert len(set(values)) == 1, key


def test_neighbors_over_failing_link_are_lost_and_restored(lab: Lab) -> None:
    one, other = topology.FAILING_LINK
    for node, address in ((one.node, other.addresses[0]), (other.node, one.addresses[0])):
        baseline, down, restored = (mac(lab, state, node, address) for state in STATES)
        assert baseline is not None
        assert baseline == restored
        assert down in (None, "(incomplete)")  # a lookup may be pending


def test_listing_shows_session_down_and_up(lab: Lab) -> None:
    name = "2001:db8:24::1_port2"  # the only IPv6 session there, so it is listed

    def status(state: str) -> tuple[str, str]:
        (entry,) = (e for e in lab.observations(state)["edge"]["listing"] if e["name"] == name)
        return entry["status"], entry["diagnostics"]

    assert [status(state)[0] for state in STATES] == ["up", "down", "up"]
    assert status(LINK_DOWN)[1] == EXPIRED
