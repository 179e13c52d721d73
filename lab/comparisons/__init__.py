"""The comparisons of the module with the system's own tools, as rows."""

from __future__ import annotations

from collections.abc import Callable
from functools import partial
from typing import NamedTuple

from lab.comparisons import arp, bfd, routing
from lab.matchers import Outcome
from lab.network import Node


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
