"""The lab's network as rows: three nodes, their links, routes, neighbors and BFD sessions.

    branch port1 ---------- port1 hub port2 ---------- port1 edge
                                  hub port3 ---------- port2 edge

The addresses are reserved for documentation and private use.
"""

from __future__ import annotations

from dataclasses import dataclass
from ipaddress import ip_address, ip_interface
from typing import NamedTuple

NODES = ("branch", "hub", "edge")


class Port(NamedTuple):
    """One end of a link, with an address of each IP version."""

    node: str
    name: str
    ipv4: str
    ipv6: str

    @property
    def addresses(self) -> tuple[str, str]:
        """Its addresses without the prefix lengths."""
        return str(ip_interface(self.ipv4).ip), str(ip_interface(self.ipv6).ip)


Link = tuple[Port, Port]

LINKS: tuple[Link, ...] = (
    (
        Port("branch", "port1", "192.0.2.1/24", "2001:db8:12::1/64"),
        Port("hub", "port1", "192.0.2.2/24", "2001:db8:12::2/64"),
    ),
    (
        Port("hub", "port2", "198.51.100.1/30", "2001:db8:23::1/64"),
        Port("edge", "port1", "198.51.100.2/30", "2001:db8:23::2/64"),
    ),
    (
        Port("hub", "port3", "198.51.100.5/30", "2001:db8:24::1/64"),
        Port("edge", "port2", "198.51.100.6/30", "2001:db8:24::2/64"),
    ),
)

# The lab takes the first port of this link down; the second loses its carrier.
FAILING_LINK = LINKS[2]

LOOPBACKS = {
    "branch": ("10.1.0.1/32", "2001:db8:1::1/128"),
    "hub": ("10.2.0.1/32", "2001:db8:2::1/128"),
    "edge": ("10.3.0.1/32", "2001:db8:3::1/128"),
}


class Route(NamedTuple):
    """A static route of the routing daemon.

    A next hop is an address, a port, "blackhole" (drop) or "reject" (drop with an ICMP error).
    """

    node: str
    prefix: str
    hops: tuple[str, ...]
    distance: int = 1


ROUTES = (
    Route("branch", "0.0.0.0/0", ("192.0.2.2",)),
    Route("branch", "203.0.113.0/24", ("blackhole",)),
    Route("branch", "203.0.113.32/27", ("blackhole",)),
    Route("branch", "203.0.113.64/26", ("port1",)),
    Route("branch", "203.0.113.128/25", ("reject",)),
    Route("branch", "::/0", ("2001:db8:12::2",)),
    Route("branch", "2001:db8:dead::/48", ("blackhole",)),
    Route("hub", "10.1.0.0/16", ("192.0.2.1",)),
    Route("hub", "10.3.0.0/16", ("198.51.100.2", "198.51.100.6")),
    Route("hub", "203.0.113.0/24", ("blackhole",)),
    Route("hub", "2001:db8:1::/48", ("2001:db8:12::1",)),
    Route("hub", "2001:db8:3::/48", ("2001:db8:23::2", "2001:db8:24::2")),
    Route("edge", "0.0.0.0/0", ("198.51.100.1", "198.51.100.5")),
    Route("edge", "10.80.0.0/16", ("198.51.100.5",), distance=5),
    Route("edge", "10.80.0.0/16", ("198.51.100.1",), distance=50),  # used while the other is lost
    Route("edge", "::/0", ("2001:db8:23::1", "2001:db8:24::1")),
    Route("edge", "2001:db8:dead::/48", ("reject",)),
)

# Routes for `ip route add`, which the routing daemon does not own.
KERNEL_ROUTES = {
    "branch": (
        "10.90.0.0/16 via inet6 2001:db8:12::2 dev port1",
        "prohibit 10.91.0.0/16",
    ),
    "hub": ("10.92.0.0/16 via 192.0.2.1 metric 77 proto static",),
    # Over the failing link: the kernel keeps it and flags it "linkdown".
    "edge": ("10.93.0.0/16 via 198.51.100.5",),
}


class Rerouted(NamedTuple):
    """An address with a route over the failing link, and the gateways that the module reports."""

    node: str
    address: str
    baseline: tuple[str, ...]
    link_down: tuple[str, ...]
    link_down_marker: str = "*"


REROUTED = (
    Rerouted("hub", "10.3.0.9", ("198.51.100.2", "198.51.100.6"), ("198.51.100.2",)),
    Rerouted("hub", "2001:db8:3::9", ("2001:db8:23::2", "2001:db8:24::2"), ("2001:db8:23::2",)),
    Rerouted("edge", "203.0.113.9", ("198.51.100.1", "198.51.100.5"), ("198.51.100.1",)),
    Rerouted("edge", "2001:db8:ffff::9", ("2001:db8:23::1", "2001:db8:24::1"), ("2001:db8:23::1",)),
    # The route with the greater distance takes over.
    Rerouted("edge", "10.80.0.9", ("198.51.100.5",), ("198.51.100.1",)),
    # The kernel's own route stays, without its marker.
    Rerouted("edge", "10.93.0.9", ("198.51.100.5",), ("198.51.100.5",), link_down_marker=""),
)


class Neighbor(NamedTuple):
    """A neighbor entry for `ip neigh replace`; without a MAC address, no host has the address."""

    node: str
    port: str
    address: str
    mac: str | None
    state: str


NEIGHBORS = (
    Neighbor("branch", "port1", "192.0.2.10", "02:00:00:00:00:10", "permanent"),
    Neighbor("branch", "port1", "192.0.2.11", "02:00:00:00:00:11", "stale"),
    Neighbor("branch", "port1", "192.0.2.12", "02:00:00:00:00:12", "noarp"),
    Neighbor("branch", "port1", "192.0.2.13", None, "failed"),
    Neighbor("branch", "port1", "192.0.2.14", None, "incomplete"),
    Neighbor("edge", "port1", "198.51.100.9", "02:00:00:00:00:19", "permanent"),
)


@dataclass(frozen=True)
class Session:
    """One end of a BFD session, multihop if it has no port; intervals in milliseconds."""

    node: str
    peer: str
    local: str
    port: str | None
    multiplier: int = 3
    receive: int = 300
    transmit: int = 300
    settings: tuple[str, ...] = ()  # more lines for the daemon's configuration
    has_peer: bool = True  # another node has the other end

    @property
    def version(self) -> int:
        """The IP version, 4 or 6."""
        return ip_address(self.peer).version

    @property
    def location(self) -> str:
        """The port, or the VRF of a multihop session, as the command line wants it."""
        return self.port or "default"

    @property
    def uses_failing_link(self) -> bool:
        """Whether the session has no path but the failing link."""
        return any((self.node, self.port) == (end.node, end.name) for end in FAILING_LINK)


# The timers tolerate nearly a second without a packet, in case this machine is busy.
SESSIONS = (
    # One session of each IP version: list_bfd_neighbor lists them all.
    Session("branch", "10.3.0.1", "10.1.0.1", None, 4, 320, 330, ("minimum-ttl 250",)),
    Session("branch", "2001:db8:12::2", "2001:db8:12::1", "port1", 5, 290, 310),
    # Several of both versions.
    Session("hub", "198.51.100.2", "198.51.100.1", "port2", 4, 310, 320),
    Session("hub", "198.51.100.6", "198.51.100.5", "port3", 3, 330, 340),
    Session("hub", "192.0.2.77", "192.0.2.2", "port1", has_peer=False),
    Session("hub", "2001:db8:12::1", "2001:db8:12::2", "port1"),
    Session("hub", "2001:db8:24::2", "2001:db8:24::1", "port3", 3, 350, 360),
    # Several of version 4, one of version 6.
    Session("edge", "198.51.100.1", "198.51.100.2", "port1", 5, 280, 290, ("passive-mode",)),
    Session("edge", "198.51.100.5", "198.51.100.6", "port2"),
    Session("edge", "10.1.0.1", "10.3.0.1", None, 4, 370, 380),
    Session("edge", "2001:db8:24::1", "2001:db8:24::2", "port2"),
)

# For every node: forwarding, no duplicate address detection, IPv6 addresses that stay on link down.
SYSCTLS = {
    "net/ipv4/ip_forward": 1,
    "net/ipv4/conf/all/rp_filter": 0,
    "net/ipv4/conf/default/rp_filter": 0,
    "net/ipv6/conf/all/forwarding": 1,
    "net/ipv6/conf/all/accept_dad": 0,
    "net/ipv6/conf/default/accept_dad": 0,
    "net/ipv6/conf/all/keep_addr_on_down": 1,
}
# For every port: neighbors keep their state during the comparisons. The kernel sets the age of
# added entries to twice this time, ten minutes.
PORT_SYSCTLS = {"net/ipv4/neigh/{}/base_reachable_time_ms": 300_000}
# For a port with a neighbor entry that stays incomplete.
INCOMPLETE_SYSCTLS = {"net/ipv4/neigh/{}/retrans_time_ms": 60_000}


def link_ends(node: str) -> list[tuple[Port, Port]]:
    """Return the ports of a node, each with the port at the other end of its link."""
    both = [pair for one, other in LINKS for pair in ((one, other), (other, one))]
    return [(near, far) for near, far in both if near.node == node]
