"""What is compared with what: a row for each, made in the file of its subject.

A comparison is of everything at once: `compare` gives the structure that the module's function
made of the network and the one that the oracle says it must be, for a test to hold side by side.
"""

from __future__ import annotations

from lab.comparisons import arp, bfd, routing
from lab.comparisons.comparison import Check

__all__ = ["CHECKS", "Check"]

CHECKS = (
    Check("ARP", "get_system_arp_result", "ip -s -j -4 neigh", arp.entries),
    Check("ARP, far ends", "get_system_arp_result", "the far ends' ip -j link", arp.far_ends),
    Check("ARP, text", "get_cli_command_output", "ip -s -j -4 neigh", arp.text),
    Check("IPv4 routes", "get_routing_table_result", "ip -j route", routing.kernel(4)),
    Check("IPv6 routes", "get_routing_table_result", "ip -j -6 route", routing.kernel(6)),
    Check("IPv4 daemon", "get_routing_table_result", "show ip route json", routing.daemon(4)),
    Check("IPv6 daemon", "get_routing_table_result", "show ipv6 route json", routing.daemon(6)),
    Check("IPv4 own text", "get_routing_table_result", "show ip route json", routing.own_text(4)),
    Check("IPv6 own text", "get_routing_table_result", "show ipv6 route json", routing.own_text(6)),
    Check("BFD sessions", "get_bfd_neighbor", "show bfd peers [counters] json", bfd.sessions),
    Check("BFD listing", "list_bfd_neighbor", "show bfd peers [counters] json", bfd.listing),
    Check("BFD summaries", "get_cli_command_output", "show bfd peers json", bfd.summaries),
)
