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


def _arp(name: str, oracle: str, compare: Callable[[Node], Outcome]) -> Comparison:
    return Comparison(name, "get_system_arp_result", oracle, compare)


def _routing(name: str, oracle: str, compare: Callable[[Node], Outcome]) -> Comparison:
    return Comparison(name, "get_routing_table_result", oracle, compare)


COMPARISONS = (
    _arp("ARP", "ip -s -j -4 neigh", arp.entries),
    _arp("ARP, peer MACs", "the peers' ip -j link", arp.peer_macs),
    Comparison("ARP, text", "get_cli_command_output", "ip -s -j -4 neigh", arp.text),
    _routing("IPv4 routes", "ip -j route", partial(routing.kernel, 4)),
    _routing("IPv6 routes", "ip -j -6 route", partial(routing.kernel, 6)),
    _routing("IPv4 daemon", "show ip route json", partial(routing.daemon, 4)),
    _routing("IPv6 daemon", "show ipv6 route json", partial(routing.daemon, 6)),
    _routing("IPv4 daemon text", "show ip route json", partial(routing.daemon_text, 4)),
    _routing("IPv6 daemon text", "show ipv6 route json", partial(routing.daemon_text, 6)),
    Comparison("BFD sessions", "get_bfd_neighbor", "show bfd peers [counters] json", bfd.sessions),
    Comparison("BFD list", "list_bfd_neighbor", "show bfd peers [counters] json", bfd.listing),
    Comparison("BFD summaries", "get_cli_command_output", "show bfd peers json", bfd.summaries),
)
