"""The output of "get router info routing-table detail ADDRESS".

Source: the kernel's lookup in its forwarding table, including policy rules (RTM_GETROUTE with
RTM_F_FIB_MATCH, which returns the matching route instead of the path). The kernel stores no age of
a route ("n/a"). It stores no administrative distance either: the output has 0 for the kernel's own
and an administrator's routes, "n/a" for a routing daemon's.
"""

from __future__ import annotations

import errno
import socket
from ipaddress import IPv4Address, IPv6Address, ip_address
from typing import Any, Union

from pyroute2.netlink.exceptions import NetlinkError
from pyroute2.netlink.rtnl import rt_proto, rt_type

from veldarin_simulator.providers.netlink import Message, interface_names, query

Address = Union[IPv4Address, IPv6Address]

# include/uapi/linux/rtnetlink.h
_RTM_F_FIB_MATCH = 0x2000
_RT_TABLE_MAIN = 254
_RTNH_F_DEAD = 1
_RTNH_F_LINKDOWN = 16

# A lookup of a rejecting route fails, with an errno for each type.
_REJECTIONS = {
    errno.EINVAL: rt_type["blackhole"],
    errno.EHOSTUNREACH: rt_type["unreachable"],
    errno.EACCES: rt_type["prohibit"],
}
_NO_ROUTE = (errno.ENETUNREACH, errno.EHOSTUNREACH)

# Routing daemons that the netlink library does not know. Their static routes have another number
# than an administrator's.
_DAEMONS = {
    42: "babel",
    99: "openr",
    186: "bgp",
    187: "isis",
    188: "ospf",
    189: "rip",
    190: "ripng",
    191: "nhrp",
    192: "eigrp",
    193: "ldp",
    194: "sharp",
    195: "pbr",
    196: "static",
    197: "openfabric",
}
_PROTOCOLS = {**rt_proto, **_DAEMONS}
_KERNEL = rt_proto["kernel"]
_WITHOUT_DISTANCE = {
    *_DAEMONS,
    *(rt_proto[name] for name in ("gated", "mrt", "zebra", "bird", "xorp")),
}

_NOT_FOUND = "% Network not in table\n"
_POLICY = "% Refused by a policy rule\n"
_MALFORMED = "% Malformed address\n"


def detail(address: str) -> str:
    """Return a "Routing entry for PREFIX" line, protocol, distance, metric, update, next hops.

    An asterisk marks a next hop whose link is up. The output is an error line that begins with "%"
    if the text is not an IP address, no route covers it, or a policy rule rejects it.

    Raises:
        OSError, NetlinkError: As in `netlink.query`.
    """
    try:
        wanted = ip_address(address)
    except ValueError:
        return _MALFORMED
    if "%" in address:
        return _MALFORMED  # a zone index belongs to an interface, not to a route
    return query(lambda kernel: _entry(kernel, wanted))


def _entry(kernel: Any, wanted: Address) -> str:
    family = socket.AF_INET if wanted.version == 4 else socket.AF_INET6
    try:
        found = list(kernel.route("get", dst=str(wanted), family=family, flags=_RTM_F_FIB_MATCH))
    except NetlinkError as error:
        if error.code not in (*_REJECTIONS, *_NO_ROUTE):
            raise
        return _rejected(kernel, wanted, family, error.code)
    return _block(kernel, wanted, found[0]) if found else _NOT_FOUND


def _rejected(kernel: Any, wanted: Address, family: int, code: int) -> str:
    """Return the entry that rejected a lookup, which the kernel does not name.

    It is the most specific covering route of that type in the main table, or else a policy rule.
    """
    covering = [
        route
        for route in kernel.get_routes(family=family, table=_RT_TABLE_MAIN)
        if route["type"] == _REJECTIONS.get(code) and _covers(route, wanted)
    ]
    if covering:
        return _block(kernel, wanted, max(covering, key=_preference))
    return _NOT_FOUND if code in _NO_ROUTE else _POLICY


def _block(kernel: Any, wanted: Address, route: Message) -> str:
    prefix = route.get_attr("RTA_DST") or ("0.0.0.0" if wanted.version == 4 else "::")
    distance = "n/a" if route["proto"] in _WITHOUT_DISTANCE else "0"
    metric = route.get_attr("RTA_PRIORITY") or 0
    lines = [
        f"Routing entry for {prefix}/{route['dst_len']}",
        f'  Known via "{_protocol(route)}", distance {distance}, metric {metric}, best',
        "  Last update n/a (the kernel keeps no age of a route)",
        *(f"  {hop}" for hop in _next_hops(kernel, route)),
    ]
    return "\n".join(lines) + "\n"


def _covers(route: Message, wanted: Address) -> bool:
    start = route.get_attr("RTA_DST")
    shift = wanted.max_prefixlen - route["dst_len"]
    return start is None or int(ip_address(start)) >> shift == int(wanted) >> shift


def _preference(route: Message) -> tuple[int, int]:
    return route["dst_len"], -(route.get_attr("RTA_PRIORITY") or 0)


def _protocol(route: Message) -> str:
    kind = rt_type.get(route["type"], "unknown")
    if route["proto"] != _KERNEL:
        return str(_PROTOCOLS.get(route["proto"], route["proto"]))
    return "connected" if kind == "unicast" else str(kind)


def _next_hops(kernel: Any, route: Message) -> list[str]:
    if route["type"] in _REJECTIONS.values():
        return [f"* {rt_type[route['type']]}, none"]
    names = interface_names(kernel)
    paths = route.get_attr("RTA_MULTIPATH")
    if not paths:
        return [_next_hop(route, names.get(route.get_attr("RTA_OIF"), "none"))]
    return [
        f"{_next_hop(path, names.get(path['oif'], 'none'))}, weight {path['hops'] + 1}"
        for path in paths
    ]


def _next_hop(path: Message, interface: str) -> str:
    gateway = path.get_attr("RTA_GATEWAY")
    if gateway is None:
        via = path.get_attr("RTA_VIA")  # a gateway of the other family
        gateway = via and via["addr"]
    if not gateway:
        return f"directly connected, {interface}"
    down = path["flags"] & (_RTNH_F_DEAD | _RTNH_F_LINKDOWN)
    return f"{'' if down else '* '}{gateway}, via {interface}"
