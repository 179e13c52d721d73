"""A cut wire shows in what the module says, and that it is mended shows too."""

from __future__ import annotations

import pytest

from lab import topology
from lab.network_states import STATES, Lab
from lab.topology import Rerouted, Session

OVER_THE_CUT = [row for row in topology.SESSIONS if row.over_the_cut]
ELSEWHERE = [row for row in topology.SESSIONS if not row.over_the_cut]
EXPIRED = "control detection time expired"


def named(row: Session) -> str:
    return f"{row.node} {row.peer}"


def mac(lab: Lab, state: str, node: str, address: str) -> str | None:
    entries = lab.told(state)[node]["arp"]
    return next((entry["mac"] for entry in entries if entry["ipAddress"] == address), None)


@pytest.mark.parametrize("row", topology.REROUTED, ids=lambda row: f"{row.node} {row.address}")
def test_a_next_hop_over_the_wire_is_lost_and_comes_back(lab: Lab, row: Rerouted) -> None:
    def hops(state: str) -> list[tuple[str, ...]]:
        table = lab.told(state)[row.node]["routes"][row.address]["table"]
        return sorted(tuple(hop.values()) for hop in table)

    assert [hops(state) for state in STATES] == [row.whole, row.cut, row.whole]


@pytest.mark.parametrize("row", OVER_THE_CUT, ids=named)
def test_a_session_over_the_wire_goes_down_with_the_reason_and_comes_up_again(
    lab: Lab, row: Session
) -> None:
    whole, cut, mended = (lab.session(state, row) for state in STATES)
    assert (whole["status"], cut["status"], mended["status"]) == ("up", "down", "up")
    assert cut["diagnostics"] == EXPIRED
    assert "uptime" not in cut
    assert cut["downtime"]
    # The other end's discriminator is forgotten; one's own stays.
    assert cut["remote_id"] == "0" != whole["remote_id"]
    assert whole["id"] == cut["id"] == mended["id"]
    events = [
        (int(told["session_up_events"]), int(told["session_down_events"]))
        for told in (whole, cut, mended)
    ]
    ups, downs = events[0]
    assert events == [(ups, downs), (ups, downs + 1), (ups + 1, downs + 1)]


@pytest.mark.parametrize("row", ELSEWHERE, ids=named)
def test_a_session_that_has_another_way_notices_nothing(lab: Lab, row: Session) -> None:
    for key in ("status", "diagnostics", "id", "remote_id", "session_down_events"):
        values = [lab.session(state, row)[key] for state in STATES]
        assert len(set(values)) == 1, key


def test_the_neighbors_over_the_wire_go_and_come_back(lab: Lab) -> None:
    one, other = topology.CUT
    for node, address in ((one.node, other.addresses[0]), (other.node, one.addresses[0])):
        whole, cut, mended = (mac(lab, state, node, address) for state in STATES)
        assert whole is not None
        assert whole == mended
        assert cut in (None, "(incomplete)")  # while somebody still looks for it


def test_the_listing_shows_the_session_down_and_up_again(lab: Lab) -> None:
    name = "2001:db8:24::1_port2"  # the only one of IP version 6 there, so it is listed

    def status(state: str) -> tuple[str, str]:
        (entry,) = (e for e in lab.told(state)["edge"]["listing"] if e["name"] == name)
        return entry["status"], entry["diagnostics"]

    assert [status(state)[0] for state in STATES] == ["up", "down", "up"]
    assert status("cut")[1] == EXPIRED
