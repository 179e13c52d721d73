"""IPv4 multicast groups joined on each port, in place of a switch's IGMP snooping table.

Source: /proc/net/igmp. A line for an interface is followed by one indented line for each group.
"""

from __future__ import annotations

import sys
from ipaddress import IPv4Address
from pathlib import Path
from typing import Any

_IGMP = Path("/proc/net/igmp")


def groups(request: dict[str, Any]) -> list[dict[str, Any]]:
    """One entry for each port and group, or for those of the port that the request names.

    An entry: `port_name`, `group` (the dotted address), `users` (how many sockets and protocols
    joined), `version` (the IGMP version spoken on the port, as "V3"). An unknown name gives none.
    Raises `OSError` where the kernel keeps no IGMP table.
    """
    wanted = request.get("port_name")
    table = parsed(_IGMP.read_text())
    return [entry for entry in table if wanted is None or entry["port_name"] == wanted]


def parsed(text: str) -> list[dict[str, Any]]:
    """The entries of a text laid out as /proc/net/igmp, its heading line left out."""
    entries = []
    port_name = version = ""
    for line in text.splitlines()[1:]:
        if not line[0].isspace():
            # "4<tab>eth0      :     1      V3": the name may touch the colon.
            name, _, rest = line.split(None, 1)[1].rpartition(":")
            port_name, version = name.strip(), rest.split()[1]
            continue
        group, users = line.split()[:2]
        # The address as a machine word: its bytes stand in the network's order in memory.
        address = IPv4Address(int(group, 16).to_bytes(4, sys.byteorder))
        entries.append(
            {
                "port_name": port_name,
                "group": str(address),
                "users": int(users),
                "version": version,
            }
        )
    return entries
