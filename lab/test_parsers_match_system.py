"""In every state of the network the module says what the system itself says, of every node; and
what the nodes say of each other fits together."""

from __future__ import annotations

from collections.abc import Callable

import pytest

from lab import matchers, topology
from lab.comparisons import CHECKS, Check
from lab.network_states import Lab


@pytest.mark.parametrize("node", topology.NODES)
@pytest.mark.parametrize("check", CHECKS, ids=lambda check: check.name)
def test_the_module_says_what_the_system_says(
    state: str, check: Check, node: str, lab: Lab, record_property: Callable[[str, object], None]
) -> None:
    compared = check.compare(lab.nodes[node])
    for name, value in {
        "state": state,
        "check": check.name,
        "function": check.function,
        "oracle": check.oracle,
        "node": node,
        "values": matchers.count(compared.expected),
    }.items():
        record_property(name, value)
    assert matchers.count(compared.expected) > 0
    assert compared.said == compared.expected


def test_the_two_ends_of_a_session_tell_each_others_discriminators_and_timers(lab: Lab) -> None:
    answered = [row for row in topology.SESSIONS if row.answered]
    for row in answered:
        (other,) = (end for end in answered if (end.peer, end.local) == (row.local, row.peer))
        near, far = lab.session("whole", row), lab.session("whole", other)
        assert near["remote_id"] == far["id"]
        assert near["remote_timers"] == far["local_timers"]
        assert near["local_timers"] == {
            "detect-multiplier": str(row.multiplier),
            "receive_interval": f"{row.receive}ms",
            "transmission_interval": f"{row.transmit}ms",
        }


def test_a_node_with_one_session_of_each_family_lists_them_all(lab: Lab) -> None:
    assert [entry["name"] for entry in lab.told("whole")["branch"]["listing"]] == [
        "10.3.0.1_default",
        "2001:db8:12::2_port1",
    ]
    assert len(lab.told("whole")["branch"]["sessions"]) == 2
