"""Compares the routing-table entry of every prefix with the kernel and the routing daemon."""

from __future__ import annotations

from collections.abc import Iterator
from ipaddress import IPv4Address, IPv4Network, IPv6Address, IPv6Network, ip_network
from typing import Any, Union

from lab import oracles
from lab.matchers import Duration, OneOf, Outcome, seconds
from lab.network import LabError, Node

Prefix = Union[IPv4Network, IPv6Network]
Address = Union[IPv4Address, IPv6Address]

_FUNCTION = "get_routing_table_result"
_DEFAULTS = {4: "0.0.0.0/0", 6: "::/0"}
_REJECTING = ("blackhole", "unreachable", "prohibit")
# `ip route get` does not find routes of these types.
_WITHOUT_LOOKUP = ("multicast", "anycast")


def kernel(version: int, node: Node) -> Outcome:
    """Compare the kernel's routes of all tables: prefix, owner, distance, metric, next hops."""
    actual = _call_for_each_prefix(node, version)
    daemon_prefixes = _daemon_prefixes(node, version)
    expected = {
        prefix: _kernel_entry(_route(node, rows, address), prefix, prefix in daemon_prefixes)
        for prefix, rows, address in _probes(node, version)
    }
    return Outcome(actual, expected)


def daemon(version: int, node: Node) -> Outcome:
    """Compare the daemon's routes that it installs or takes from the ports.

    The metric is not compared: the kernel's is a priority. Routes that the daemon learned from the
    kernel are not compared: it does not know gateways of the other IP version.
    """
    entries = {
        prefix: rows
        for prefix, rows in oracles.routes(node, version).items()
        if rows[0]["protocol"] != "kernel"
    }
    actual = {
        prefix: {
            "entry": entry["entry"],
            "distance": entry["distance"],
            "owner": entry["other"].split('"')[1],
            "table": sorted(entry["table"], key=str),
        }
        for prefix, entry in _call_for_each_prefix(node, version).items()
        if prefix in entries
    }
    return Outcome(actual, {prefix: _daemon_entry(prefix, entries[prefix]) for prefix in entries})


def daemon_text(version: int, node: Node) -> Outcome:
    """Compare the parser's results for the daemon's own text of every prefix."""
    addresses = {prefix: address for prefix, _, address in _probes(node, version)}

    def parse_texts() -> dict[str, Any]:
        probed = [addresses[prefix] for prefix in oracles.routes(node, version)]
        texts = oracles.route_texts(node, version, probed)
        return {prefix: _parse(node, text) for prefix, text in texts.items()}

    before, actual, after = oracles.sample_until_stable(
        lambda: oracles.routes(node, version), parse_texts, _without_uptime
    )
    return Outcome(
        actual, {prefix: _text_entry(before[prefix], after[prefix]) for prefix in before}
    )


def _call_for_each_prefix(node: Node, version: int) -> dict[str, Any]:
    """Return the module's result for an address in each prefix, by prefix."""
    return {
        prefix: node.agent.call_live(_FUNCTION, address)
        for prefix, _, address in _probes(node, version)
    }


def _probes(node: Node, version: int) -> Iterator[tuple[str, list[Any], str]]:
    """Yield each prefix of the kernel's routes, its routes, and an address to look up."""
    rows: dict[Prefix, list[Any]] = {}
    for row in oracles.kernel_routes(node, version):
        if row.get("type") not in _WITHOUT_LOOKUP:
            prefix = ip_network(_DEFAULTS[version] if row["dst"] == "default" else row["dst"])
            rows.setdefault(prefix, []).append(row)
    for prefix, routes in rows.items():
        yield str(prefix), routes, str(_address(prefix, list(rows)))


def _address(prefix: Prefix, others: list[Any]) -> Address:
    """Return an address whose longest matching prefix is this one.

    Candidates are at the edges of the prefix and next to the prefixes inside it.
    """
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
    raise LabError(f"no address to look up for {prefix}")


def _route(node: Node, rows: list[Any], address: str) -> Any:
    """Return the kernel's lookup, or from the rows a route that rejects traffic."""
    rejecting = [row for row in rows if row.get("type") in _REJECTING]
    return rejecting[0] if rejecting else oracles.kernel_route(node, address)


def _daemon_prefixes(node: Node, version: int) -> set[str]:
    numbers = oracles.daemon_protocols(node)
    return {
        _DEFAULTS[version] if row["dst"] == "default" else str(ip_network(row["dst"]))
        for row in oracles.kernel_routes(node, version, "-N")
        if _protocol(row) in numbers
    }


def _kernel_entry(row: Any, prefix: str, is_daemon_route: bool) -> dict[str, Any]:
    entry = _DEFAULTS[ip_network(prefix).version] if row["dst"] == "default" else row["dst"]
    kind = row.get("type", "unicast")
    owner = _protocol(row)
    if owner == "kernel":
        owner = "connected" if kind == "unicast" else kind
    return {
        "entry": str(ip_network(entry)),
        "distance": "n/a" if is_daemon_route else "0",
        "metric": str(row.get("metric", 0)),
        "lastUpdate": "n/a",
        "other": f'  Known via "{owner}",  best',
        "table": [_kernel_hop(hop, kind) for hop in row.get("nexthops", [row])],
    }


def _protocol(row: Any) -> str:
    return str(row.get("protocol", "boot"))  # `ip` omits the default


def _kernel_hop(hop: Any, kind: str) -> dict[str, str]:
    if kind in _REJECTING:
        return _hop("*", kind, "none")
    gateway = hop.get("gateway") or hop.get("via", {}).get("host")
    if gateway is None:
        return _hop("directly", "connected", hop["dev"])
    is_down = {"dead", "linkdown"} & set(hop["flags"])
    return _hop("" if is_down else "*", gateway, hop["dev"])


def _hop(main: str, address: str, interface: str) -> dict[str, str]:
    return {"main": main, "ip": address, "interface": interface}


def _daemon_entry(prefix: str, entries: Any) -> dict[str, Any]:
    in_use = [entry for entry in entries if entry.get("selected")]
    # A link-local prefix is connected on each port; the kernel looks up one of them.
    candidates = [entry for entry in entries if entry["protocol"] == "connected"] or in_use
    hops = [sorted((_daemon_hop(hop) for hop in _in_use(entry)), key=str) for entry in candidates]
    (entry,) = in_use
    return {
        "entry": prefix,
        # The kernel does not store the distance; the simulator then prints "n/a".
        "distance": OneOf(("n/a", str(entry["distance"]))),
        "owner": _owner(prefix, entry["protocol"]),
        "table": OneOf(tuple(hops)) if len(hops) > 1 else hops[0],
    }


def _owner(prefix: str, protocol: str) -> str:
    if protocol == "connected" and ip_network(prefix).num_addresses == 1:
        return "local"  # a local address of the node
    return protocol


def _in_use(entry: Any) -> list[Any]:
    return [hop for hop in entry["nexthops"] if hop.get("fib")]


def _daemon_hop(hop: Any) -> dict[str, str]:
    if hop.get("unreachable"):
        return _hop("*", "blackhole" if hop.get("blackhole") else "unreachable", "none")
    if hop.get("directlyConnected"):
        return _hop("directly", "connected", hop["interfaceName"])
    return _hop("*", hop["ip"], hop["interfaceName"])


def _without_uptime(entries: Any) -> Any:
    return {
        prefix: [{key: entry[key] for key in entry if key != "uptime"} for entry in rows]
        for prefix, rows in entries.items()
    }


def _parse(node: Node, text: str) -> Any:
    """Return the parser's result for the text, or the name of its exception."""
    result = node.agent.call(_FUNCTION, "captured", output=text)
    return result.error or result.value


def _text_entry(before: Any, after: Any) -> Any:
    """Return what the parser must return for the daemon's text of a prefix.

    It raises IndexError for a line without a comma below the header: the second block of a prefix
    with two entries, or a reject route learned from elsewhere, which has no weight.
    """
    entry, later = before[0], after[0]
    if len(before) > 1 or any(
        hop.get("unreachable") and "weight" not in hop for hop in entry["nexthops"]
    ):
        return "IndexError"
    return {
        "entry": entry["prefix"],
        "distance": str(entry["distance"]),
        "metric": str(entry["metric"]),
        "lastUpdate": Duration(seconds(entry["uptime"]), seconds(later["uptime"])),
        "other": f'  Known via "{entry["protocol"]}",  best',
        "table": [_text_hop(hop) for hop in entry["nexthops"]],
    }


def _text_hop(hop: Any) -> dict[str, str]:
    """Return the next hop as parsed: two words of the first field, the last of the second."""
    marker = "*" if hop.get("fib") else ""
    if hop.get("unreachable"):
        return _hop(marker, "unreachable", str(hop["weight"]))  # "…, weight 1"
    if hop.get("directlyConnected"):
        return _hop(marker, "directly", hop["interfaceName"])
    return _hop(marker, hop["ip"], hop["interfaceName"])
