"""The routing entries: for every prefix that a node has a route to, what the module says of an
address in it, against the kernel and against the routing daemon."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from ipaddress import IPv4Address, IPv4Network, IPv6Address, IPv6Network, ip_network
from typing import Any, Union

from lab import oracles
from lab.comparisons.comparison import Compared
from lab.matchers import Lasting, OneOf
from lab.network import LabError, Node

Prefix = Union[IPv4Network, IPv6Network]
Address = Union[IPv4Address, IPv6Address]

_FUNCTION = "get_routing_table_result"
_DEFAULTS = {4: "0.0.0.0/0", 6: "::/0"}
_REFUSING = ("blackhole", "unreachable", "prohibit")
# Of these the kernel says nothing when it is asked for the route that covers an address.
_NOT_LOOKED_UP = ("multicast", "anycast")


def kernel(version: int) -> Callable[[Node], Compared]:
    """Every route of the kernel's tables: prefix, owner, distance, metric and every next hop."""

    def compare(node: Node) -> Compared:
        told = _told(node, version)
        daemons = _of_daemons(node, version)
        wanted = {
            prefix: _kernel_entry(_route(node, rows, address), prefix, prefix in daemons)
            for prefix, rows, address in _probes(node, version)
        }
        return Compared(told, wanted)

    return compare


def daemon(version: int) -> Callable[[Node], Compared]:
    """Every route that the daemon has put into the kernel or takes from its ports: prefix, owner,
    distance, next hops. The metric is not compared: the kernel's is a priority, which the daemon
    gives it. Routes that the daemon only hears of are not: it knows no gateway of the other IP
    version, and calls such a one connected."""

    def compare(node: Node) -> Compared:
        told = _told(node, version)
        entries = {
            prefix: found
            for prefix, found in oracles.routes(node, version).items()
            if found[0]["protocol"] != "kernel"
        }
        wanted = {prefix: _daemon_entry(prefix, entries[prefix]) for prefix in entries}
        said = {
            prefix: {
                "entry": entry["entry"],
                "distance": entry["distance"],
                "owner": entry["other"].split('"')[1],
                "table": sorted(entry["table"], key=str),
            }
            for prefix, entry in told.items()
            if prefix in entries
        }
        return Compared(said, wanted)

    return compare


def own_text(version: int) -> Callable[[Node], Compared]:
    """The daemon's own text of every prefix, unaltered, as the parser reads it."""

    def compare(node: Node) -> Compared:
        addresses = {prefix: address for prefix, _, address in _probes(node, version)}

        def act() -> dict[str, Any]:
            asked = [addresses[prefix] for prefix in oracles.routes(node, version)]
            texts = oracles.route_texts(node, version, asked)
            return {prefix: _parsed(node, text) for prefix, text in texts.items()}

        before, said, after = oracles.steady(
            lambda: oracles.routes(node, version), act, _without_times
        )
        wanted = {prefix: _text_entry(before[prefix], after[prefix]) for prefix in before}
        return Compared(said, wanted)

    return compare


def _told(node: Node, version: int) -> dict[str, Any]:
    """Prefix to what the module says of an address in it."""
    addresses = {prefix: address for prefix, _, address in _probes(node, version)}
    return {prefix: node.inside.live(_FUNCTION, addresses[prefix]) for prefix in addresses}


def _probes(node: Node, version: int) -> Iterator[tuple[str, list[Any], str]]:
    """Every prefix of the kernel's routes, its routes, and an address that it covers best."""
    rows: dict[Prefix, list[Any]] = {}
    for row in oracles.kernel_routes(node, version):
        if row.get("type") not in _NOT_LOOKED_UP:
            prefix = ip_network(_DEFAULTS[version] if row["dst"] == "default" else row["dst"])
            rows.setdefault(prefix, []).append(row)
    for prefix, found in rows.items():
        yield str(prefix), found, str(_address(prefix, list(rows)))


def _address(prefix: Prefix, others: list[Any]) -> Address:
    """An address for which the prefix is the longest of all that cover it: one at its own edges, or
    next to a prefix inside it."""
    inside = [other for other in others if other != prefix and other.subnet_of(prefix)]
    edges = [int(prefix[1 if prefix.num_addresses > 1 else 0]), int(prefix[-1])]
    for other in inside:
        edges += [int(other[0]) - 1, int(other[-1]) + 1]
    for number in edges:
        address = type(prefix[0])(number)
        if address not in prefix or any(address in other for other in inside):
            continue
        if not (address.is_multicast or address.is_unspecified):
            return address
    raise LabError(f"no address to ask for {prefix}")


def _route(node: Node, rows: list[Any], address: str) -> Any:
    """The kernel's own look-up; a route that refuses traffic is not told by it, but listed."""
    refusing = [row for row in rows if row.get("type") in _REFUSING]
    return refusing[0] if refusing else oracles.kernel_route(node, address)


def _of_daemons(node: Node, version: int) -> set[str]:
    numbers = oracles.daemon_protocols(node)
    return {
        _DEFAULTS[version] if row["dst"] == "default" else str(ip_network(row["dst"]))
        for row in oracles.kernel_routes(node, version, "-N")
        if _protocol(row) in numbers
    }


def _kernel_entry(row: Any, prefix: str, of_daemon: bool) -> dict[str, Any]:
    told = _DEFAULTS[ip_network(prefix).version] if row["dst"] == "default" else row["dst"]
    kind = row.get("type", "unicast")
    owner = _protocol(row)
    if owner == "kernel":
        owner = "connected" if kind == "unicast" else kind
    return {
        "entry": str(ip_network(told)),
        "distance": "n/a" if of_daemon else "0",
        "metric": str(row.get("metric", 0)),
        "lastUpdate": "n/a",
        "other": f'  Known via "{owner}",  best',
        "table": [_kernel_hop(hop, kind) for hop in row.get("nexthops", [row])],
    }


def _protocol(row: Any) -> str:
    return str(row.get("protocol", "boot"))  # what an administrator says, is not said


def _kernel_hop(hop: Any, kind: str) -> dict[str, str]:
    if kind in _REFUSING:
        return _hop("*", kind, "none")
    gateway = hop.get("gateway") or hop.get("via", {}).get("host")
    if gateway is None:
        return _hop("directly", "connected", hop["dev"])
    down = {"dead", "linkdown"} & set(hop["flags"])
    return _hop("" if down else "*", gateway, hop["dev"])


def _hop(main: str, address: str, interface: str) -> dict[str, str]:
    return {"main": main, "ip": address, "interface": interface}


def _daemon_entry(prefix: str, entries: Any) -> dict[str, Any]:
    in_use = [entry for entry in entries if entry.get("selected")]
    # A link-local prefix is connected once for each port; the kernel looks up one of them.
    alike = [entry for entry in entries if entry["protocol"] == "connected"] or in_use
    hops = [sorted((_daemon_hop(hop) for hop in _in_use(entry)), key=str) for entry in alike]
    (entry,) = in_use
    return {
        "entry": prefix,
        # What the kernel is not told, the stand-in says so.
        "distance": OneOf(("n/a", str(entry["distance"]))),
        "owner": _owner(prefix, entry["protocol"]),
        "table": OneOf(tuple(hops)) if len(hops) > 1 else hops[0],
    }


def _owner(prefix: str, protocol: str) -> str:
    if protocol == "connected" and ip_network(prefix).num_addresses == 1:
        return "local"  # its only address is the node's own
    return protocol


def _in_use(entry: Any) -> list[Any]:
    return [hop for hop in entry["nexthops"] if hop.get("fib")]


def _daemon_hop(hop: Any) -> dict[str, str]:
    if hop.get("unreachable"):
        return _hop("*", "blackhole" if hop.get("blackhole") else "unreachable", "none")
    if hop.get("directlyConnected"):
        return _hop("directly", "connected", hop["interfaceName"])
    return _hop("*", hop["ip"], hop["interfaceName"])


def _without_times(entries: Any) -> Any:
    return {
        prefix: [{key: entry[key] for key in entry if key != "uptime"} for entry in rows]
        for prefix, rows in entries.items()
    }


def _parsed(node: Node, text: str) -> Any:
    """What the parser makes of the text: its result, or the name of its exception."""
    said = node.inside.call(_FUNCTION, "captured", output=text)
    return said.error or said.value


def _text_entry(before: Any, after: Any) -> Any:
    """What the parser has to make of the daemon's text of a prefix.

    It refuses a line without a comma below the header: that of a second entry of the prefix, which
    begins a block of its own, and a refusal that the daemon only heard of, which has no weight.
    """
    entry, later = before[0], after[0]
    if len(before) > 1 or any(
        hop.get("unreachable") and "weight" not in hop for hop in entry["nexthops"]
    ):
        return "IndexError"
    ages = [_age(seen["uptime"]) for seen in (entry, later)]
    return {
        "entry": entry["prefix"],
        "distance": str(entry["distance"]),
        "metric": str(entry["metric"]),
        "lastUpdate": Lasting(*ages),
        "other": f'  Known via "{entry["protocol"]}",  best',
        "table": [_text_hop(hop) for hop in entry["nexthops"]],
    }


def _age(told: str) -> int:
    hours, minutes, seconds = map(int, told.split(":"))
    return hours * 3600 + minutes * 60 + seconds


def _text_hop(hop: Any) -> dict[str, str]:
    """The next hop by the parser's rules: of the line's first field the first word and the second,
    of its second field the second word or the only one."""
    marker = "*" if hop.get("fib") else ""
    if hop.get("unreachable"):
        return _hop(marker, "unreachable", str(hop["weight"]))  # "…, weight 1"
    if hop.get("directlyConnected"):
        return _hop(marker, "directly", hop["interfaceName"])
    return _hop(marker, hop["ip"], hop["interfaceName"])
