"""Compares the module with the system on every node, in every state of the network."""

from __future__ import annotations

from collections.abc import Callable

import pytest

from lab import matchers, topology
from lab.comparisons import COMPARISONS, Comparison
from lab.network_states import BASELINE, Lab


@pytest.mark.parametrize("node", topology.NODES)
@pytest.mark.parametrize("comparison", COMPARISONS, ids=lambda row: row.name)
def test_module_and_system_report_the_same(
    state: str,
    comparison: Comparison,
    node: str,
    lab: Lab,
    record_property: Callable[[str, object], None],
) -> None:
    outcome = comparison.compare(lab.nodes[node])
    for name, value in {
        "state": state,
        "comparison": comparison.name,
        "function": comparison.function,
        "oracle": comparison.oracle,
        "node": node,
        "values": matchers.count(outcome.expected),
    }.items():
        record_property(name, value)
    assert matchers.count(outcome.expected) > 0
    assert outcome.actual == outcome.expected


def test_session_ends_report_each_others_id_and_timers(lab: Lab) -> None:
    ends = [row for row in topology.SESSIONS if row.has_peer]
    for row in ends:
        (other,) = (end for end in ends if (end.peer, end.local) == (row.local, row.peer))
        near, far = lab.session(BASELINE, row), lab.session(BASELINE, other)
        assert near["remote_id"] == far["id"]
        assert near["remote_timers"] == far["local_timers"]
        assert near["local_timers"] == {
            "detect-multiplier": str(row.multiplier),
            "receive_interval": f"{row.receive}ms",
            "transmission_interval": f"{row.transmit}ms",
        }


def test_listing_with_one_session_per_ip_version_is_complete(lab: Lab) -> None:
    assert [entry["name"] for entry in lab.observations(BASELINE)["branch"]["listing"]] == [
        "10.3.0.1_default",
        "2001:db8:12::2_port1",
    ]
    assert len(lab.observations(BASELINE)["branch"]["sessions"]) == 2
