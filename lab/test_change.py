"""A cut wire shows in what the module says, and that it is mended shows too."""

from __future__ import annotations

from typing import Any

import pytest

from lab import topology
from lab.states import Lab
from lab.topology import Session

# (node, address, next hops of its route while the wire is whole, while it is cut)
ROUTED = [
    (
        "hub",
        "10.3.0.9",
        [("*", "198.51.100.2", "port2"), ("*", "198.51.100.6", "port3")],
        [("*", "198.51.100.2", "port2")],
    ),
    (
        "hub",
        "2001:db8:3::9",
        [("*", "2001:db8:23::2", "port2"), ("*", "2001:db8:24::2", "port3")],
        [("*", "2001:db8:23::2", "port2")],
    ),
    (
        "edge",
        "203.0.113.9",
        [("*", "198.51.100.1", "port1"), ("*", "198.51.100.5", "port2")],
        [("*", "198.51.100.1", "port1")],
    ),
    (
        "edge",
        "2001:db8:ffff::9",
        [("*", "2001:db8:23::1", "port1"), ("*", "2001:db8:24::1", "port2")],
        [("*", "2001:db8:23::1", "port1")],
    ),
    # The one of greater distance takes over.
    (
        "edge",
        "10.80.0.9",
        [("*", "198.51.100.5", "port2")],
        [("*", "198.51.100.1", "port1")],
    ),
]

OVER_THE_CUT = [row for row in topology.SESSIONS if row.over_the_cut]
ELSEWHERE = [row for row in topology.SESSIONS if not row.over_the_cut]
EXPIRED = "control detection time expired"


def named(row: Session) -> str:
    return f"{row.node} {row.peer}"


def session(lab: Lab, state: str, row: Session) -> dict[str, Any]:
    told: dict[str, Any] = lab.told(state)[row.node]["sessions"][f"{row.peer}_{row.place}"]
    return told


def mac(lab: Lab, state: str, node: str, address: str) -> str | None:
    entries = lab.told(state)[node]["arp"]
    return next((entry["mac"] for entry in entries if entry["ipAddress"] == address), None)


@pytest.mark.parametrize(("node", "address", "whole", "cut"), ROUTED)
def test_a_next_hop_over_the_wire_is_lost_and_comes_back(
    lab: Lab,
    node: str,
    address: str,
    whole: list[tuple[str, ...]],
    cut: list[tuple[str, ...]],
) -> None:
    def hops(state: str) -> list[tuple[str, ...]]:
        table = lab.told(state)[node]["routes"][address]["table"]
        return sorted(tuple(hop.values()) for hop in table)

    assert (hops("whole"), hops("cut"), hops("mended")) == (whole, cut, whole)


@pytest.mark.parametrize("row", OVER_THE_CUT, ids=named)
def test_a_session_over_the_wire_goes_down_with_the_reason_and_comes_up_again(
    lab: Lab, row: Session
) -> None:
    whole, cut, mended = (session(lab, state, row) for state in ("whole", "cut", "mended"))
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
        values = [session(lab, state, row)[key] for state in ("whole", "cut", "mended")]
        assert len(set(values)) == 1, key


def test_the_two_ends_of_a_session_tell_each_others_discriminators_and_timers(lab: Lab) -> None:
    answered = [row for row in topology.SESSIONS if row.answered]
    for row in answered:
        (other,) = (end for end in answered if (end.peer, end.local) == (row.local, row.peer))
        near, far = session(lab, "mended", row), session(lab, "mended", other)
        assert near["remote_id"] == far["id"]
        assert near["remote_timers"] == far["local_timers"]
        assert near["local_timers"] == {
            "detect-multiplier": str(row.multiplier),
            "receive_interval": f"{row.receive}ms",
            "transmission_interval": f"{row.transmit}ms",
        }


def test_the_neighbors_over_the_wire_go_and_come_back(lab: Lab) -> None:
    one, other = topology.CUT
    for node, address in ((one.node, other.addresses[0]), (other.node, one.addresses[0])):
        whole, cut, mended = (
            mac(lab, state, node, address) for state in ("whole", "cut", "mended")
        )
        assert whole is not None
        assert whole == mended
        assert cut in (None, "(incomplete)")  # while somebody still looks for it


def test_the_listing_shows_the_session_down_and_up_again(lab: Lab) -> None:
    name = "2001:db8:24::1_port2"  # the only one of IP version 6 there, so it is listed

    def status(state: str) -> tuple[str, str]:
        (entry,) = (e for e in lab.told(state)["edge"]["listing"] if e["name"] == name)
        return entry["status"], entry["diagnostics"]

    assert [status(state)[0] for state in ("whole", "cut", "mended")] == ["up", "down", "up"]
    assert status("cut")[1] == EXPIRED


def test_a_node_with_one_session_of_each_family_lists_them_all(lab: Lab) -> None:
    assert [entry["name"] for entry in lab.told("whole")["branch"]["listing"]] == [
        "10.3.0.1_default",
        "2001:db8:12::2_port1",
    ]
    assert len(lab.told("whole")["branch"]["sessions"]) == 2
