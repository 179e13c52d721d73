"""The output of "get system arp": the kernel's IPv4 neighbors.

Source: an RTM_GETNEIGH dump. Like the system's own tools, the listing leaves out failed lookups
and addresses that need none (loopback, multicast).
"""

from __future__ import annotations

import os
import socket
from typing import Any

from pyroute2.netlink.rtnl.ndmsg import (
    NUD_FAILED,
    NUD_INCOMPLETE,
    NUD_NOARP,
    NUD_NONE,
    NUD_PERMANENT,
)

from veldarin_simulator.providers.netlink import Message, interface_names, query

_ROW = "{:<17}{:<11}{:<20}{}\n"
_HEADER = _ROW.format("Address", "Age(min)", "Hardware address", "Interface")
_OMITTED_STATES = (NUD_NONE, NUD_FAILED, NUD_NOARP)

# The kernel reports ages in ticks of its user clock, which sysconf describes.
_TICKS_PER_MINUTE = 60 * os.sysconf("SC_CLK_TCK")


def listing() -> str:
    """Return a header line, then a line of four columns for each neighbor.

    The age is in whole minutes since the neighbor last confirmed its address; "-" before the first
    confirmation and for a permanent entry. The hardware address is "(incomplete)" during a lookup.

    Raises:
        OSError, NetlinkError: As in `netlink.query`.
    """
    return _HEADER + "".join(query(_rows))


def _rows(kernel: Any) -> list[str]:
    names = interface_names(kernel)
    return [
        _ROW.format(
            neighbor.get_attr("NDA_DST"),
            _age(neighbor),
            _hardware_address(neighbor),
            names.get(neighbor["ifindex"], f"if{neighbor['ifindex']}"),
        )
        for neighbor in kernel.get_neighbours(family=socket.AF_INET)
        if neighbor["state"] not in _OMITTED_STATES
    ]


def _age(neighbor: Message) -> str:
    if neighbor["state"] & (NUD_PERMANENT | NUD_INCOMPLETE):
        return "-"
    return str(neighbor.get_attr("NDA_CACHEINFO")["ndm_confirmed"] // _TICKS_PER_MINUTE)


def _hardware_address(neighbor: Message) -> str:
    if neighbor["state"] & NUD_INCOMPLETE:
        return "(incomplete)"
    # A neighbor on a link without hardware addresses (a tunnel) has none.
    return neighbor.get_attr("NDA_LLADDR") or "-"
