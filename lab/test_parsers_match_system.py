"""Compares the module with the system on every node, in every state of the network."""

from __future__ import annotations

from collections.abc import Callable
from functools import partial
from typing import NamedTuple

import pytest

from lab import matchers, topology
from lab.comparisons import arp, bfd, routing
from lab.matchers import Outcome
from lab.network import Node
from lab.network_states import BASELINE, Lab


class Comparison(NamedTuple):
    """Compares all results of a function on a node with what an oracle reports."""

    name: str
    function: str
    oracle: str
    compare: Callable[[Node], Outcome]


ARP, ROUTING = "get_system_arp_result", "get_routing_table_result"
TEXT = "get_cli_command_output"
COMPARISONS = (
    Comparison("ARP", ARP, "ip -s -j -4 neigh", arp.entries),
    Comparison("ARP, peer MACs", ARP, "the peers' ip -j link", arp.peer_macs),
    Comparison("ARP, text", TEXT, "ip -s -j -4 neigh", arp.text),
    Comparison("IPv4 routes", ROUTING, "ip -j route", partial(routing.kernel, 4)),
    Comparison("IPv6 routes", ROUTING, "ip -j -6 route", partial(routing.kernel, 6)),
    Comparison("IPv4 daemon", ROUTING, "show ip route json", partial(routing.daemon, 4)),
    Comparison("IPv6 daemon", ROUTING, "show ipv6 route json", partial(routing.daemon, 6)),
    Comparison("IPv4 daemon text", ROUTING, "show ip route json", partial(routing.daemon_text, 4)),
    Comparison(
        "IPv6 daemon text", ROUTING, "show ipv6 route json", partial(routing.daemon_text, 6)
    ),
    Comparison("BFD sessions", "get_bfd_neighbor", "show bfd peers [counters] json", bfd.sessions),
    Comparison("BFD list", "list_bfd_neighbor", "show bfd peers [counters] json", bfd.listing),
    Comparison("BFD summaries", TEXT, "show bfd peers json", bfd.summaries),
)


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
    count = matchers.count(outcome.expected)
    row = (state, comparison.name, comparison.function, comparison.oracle, node, count)
    for name, value in zip(("state", "comparison", "function", "oracle", "node", "values"), row):
        record_property(name, value)
    assert count > 0
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
