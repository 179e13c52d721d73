"""The ARP listing, for the command line's "get system arp": the kernel's IPv4 neighbours.

Source: an RTM_GETNEIGH dump. Entries that say nothing about a neighbour are left out, as the
system's own tools leave them out: failed look-ups, and addresses that need none (loopback,
multicast).
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

from veldarin_simulator.providers.netlink import Message, ask, interface_names

_ROW = "{:<17}{:<11}{:<20}{}\n"
_HEADER = _ROW.format("Address", "Age(min)", "Hardware address", "Interface")
_LEFT_OUT = (NUD_NONE, NUD_FAILED, NUD_NOARP)

# The kernel tells ages in its user clock, which is the one of sysconf.
_TICKS_PER_MINUTE = 60 * os.sysconf("SC_CLK_TCK")


def listing() -> str:
    """A header line that starts with "Address", then a line of four columns for each neighbour.

    The age is in whole minutes since the neighbour last confirmed its address, "-" for a permanent
    entry, which does not age, and before the first confirmation. The hardware address is
    "(incomplete)" while a look-up runs. A machine without neighbours gives the header alone. Raises
    as `netlink.ask` does.
    """
    return _HEADER + "".join(ask(_rows))


def _rows(kernel: Any) -> list[str]:
    names = interface_names(kernel)
    return [
        _ROW.format(
            neighbour.get_attr("NDA_DST"),
            _age(neighbour),
            _hardware_address(neighbour),
            names.get(neighbour["ifindex"], f"if{neighbour['ifindex']}"),
        )
        for neighbour in kernel.get_neighbours(family=socket.AF_INET)
        if neighbour["state"] not in _LEFT_OUT
    ]


def _age(neighbour: Message) -> str:
    if neighbour["state"] & (NUD_PERMANENT | NUD_INCOMPLETE):
        return "-"
    return str(neighbour.get_attr("NDA_CACHEINFO")["ndm_confirmed"] // _TICKS_PER_MINUTE)


def _hardware_address(neighbour: Message) -> str:
    if neighbour["state"] & NUD_INCOMPLETE:
        return "(incomplete)"
    # A link without hardware addresses (a tunnel) has neighbours without one.
    return neighbour.get_attr("NDA_LLADDR") or "-"
