"""IPv4 multicast groups joined on each port, for the IGMP snooping table.

Source: /proc/net/igmp. A line for an interface is followed by an indented line for each group.
"""

from __future__ import annotations

import sys
from ipaddress import IPv4Address
from pathlib import Path
from typing import Any

_IGMP = Path("/proc/net/igmp")


def groups(request: dict[str, Any]) -> list[dict[str, Any]]:
    """Return an entry for each port and group, or for those of the port in the request.

    An entry has `port_name`, `group` (the address), `users` (the number of sockets and protocols)
    and `version` (the IGMP version of the port, "V3").

    Raises:
        OSError: The kernel has no IGMP table.
    """
    port = request.get("port_name")
    table = parse(_IGMP.read_text())
    return [entry for entry in table if port is None or entry["port_name"] == port]


def parse(text: str) -> list[dict[str, Any]]:
    """Parse a text in the format of /proc/net/igmp; the first line is its heading."""
    entries = []
    port_name = version = ""
    for line in text.splitlines()[1:]:
        if not line[0].isspace():
            # "4<tab>eth0      :     1      V3": a long name touches the colon.
            name, _, rest = line.split(None, 1)[1].rpartition(":")
            port_name, version = name.strip(), rest.split()[1]
            continue
        group, users = line.split()[:2]
        # The kernel prints the address as a machine word; in memory it is in network order.
        address = IPv4Address(int(group, 16).to_bytes(4, sys.byteorder))
        entry = {"port_name": port_name, "group": str(address), "users": int(users)}
        entries.append({**entry, "version": version})
    return entries
