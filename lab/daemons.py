"""Configures and starts the routing daemons, and waits until they converge."""

from __future__ import annotations

from typing import Any

from lab import oracles, topology
from lab.network import Network, Node, wait_until
from lab.topology import Route, Session

_FOLDER = "/usr/lib/frr"
_DAEMONS = ("zebra", "staticd", "bfdd")
# The kernel removes a lost next hop from its groups. By default the daemon keeps a group for three
# minutes and would reuse it with the next hop missing.
_NEXT_HOP_GROUPS = "zebra nexthop-group keep 1\n"


def start(network: Network) -> None:
    """Start the daemons of every node with their configuration."""
    for node in network.nodes.values():
        node.run("sh", "-c", "cat > /etc/frr/frr.conf; : > /etc/frr/vtysh.conf", stdin=config(node))
        for daemon in _DAEMONS:
            node.run(f"{_FOLDER}/{daemon}", "-d", "--log", f"file:/var/log/frr/{daemon}.log")
    for node in network.nodes.values():
        node.run("vtysh", "-b")


def version(node: Node) -> str:
    """Return the daemons' name and version."""
    return node.run("vtysh", "-c", "show version").splitlines()[0].split(" (")[0]


def config(node: Node) -> str:
    """Return the daemons' configuration of a node."""
    routes = [_route(row) for row in topology.ROUTES if row.node == node.name]
    sessions = [_session(row) for row in topology.SESSIONS if row.node == node.name]
    return "".join((_NEXT_HOP_GROUPS, *routes, "bfd\n", *sessions, "exit\n"))


def _route(row: Route) -> str:
    command = "ipv6 route" if ":" in row.prefix else "ip route"
    return "".join(f"{command} {row.prefix} {hop} {row.distance}\n" for hop in row.hops)


def _session(row: Session) -> str:
    over = "multihop" if row.port is None else ""
    at = f"interface {row.port}" if row.port else ""
    # The daemon requires the local address for these sessions.
    local = f"local-address {row.local}" if over or row.version == 6 else ""
    lines = (
        f"detect-multiplier {row.multiplier}",
        f"receive-interval {row.receive}",
        f"transmit-interval {row.transmit}",
        *row.settings,
    )
    header = " ".join(f"peer {row.peer} {over} {local} {at}".split())
    return f" {header}\n" + "".join(f"  {line}\n" for line in lines) + " exit\n"


def wait_converged(network: Network, *, link_down: bool) -> None:
    """Wait until sessions, routes and neighbors of every node match the topology.

    Raises:
        LabError: They do not; the message has the first difference.
    """
    wait_until(lambda: _find_difference(network, link_down))


def _find_difference(network: Network, link_down: bool) -> str | None:
    for name, node in network.nodes.items():
        for find in (_sessions, _routes, _groups, _neighbors):
            if difference := find(node, link_down):
                return f"{name}: {difference}"
    return None


def _sessions(node: Node, link_down: bool) -> str | None:
    peers = {(peer["peer"], peer.get("interface", peer["vrf"])): peer for peer in oracles.bfd(node)}
    for row in topology.SESSIONS:
        if row.node != node.name:
            continue
        expected = "down" if not row.has_peer or (link_down and row.uses_failing_link) else "up"
        peer = peers.get((row.peer, row.location), {})
        # The first packets after the change still have the old timers.
        if peer.get("status") != expected or (expected == "up" and not _has_timers(row, peer)):
            return f"the session with {row.peer} is not {expected}"
    return None


def _has_timers(row: Session, peer: dict[str, Any]) -> bool:
    """Whether the daemon has received the other end's timers."""
    (other,) = (end for end in topology.SESSIONS if (end.peer, end.local) == (row.local, row.peer))
    timers = (peer["remote-detect-multiplier"], peer["remote-transmit-interval"])
    return timers == (other.multiplier, other.transmit)


def _routes(node: Node, link_down: bool) -> str | None:
    ends = topology.FAILING_LINK if link_down else ()
    lost = {address for end in ends for address in end.addresses}
    for row in topology.ROUTES:
        if row.node != node.name:
            continue
        entries = oracles.routes(node, 6 if ":" in row.prefix else 4).get(row.prefix, [])
        installed = [entry for entry in entries if entry["distance"] == row.distance]
        active = sum(hop.get("active", False) for entry in installed for hop in entry["nexthops"])
        expected = len([hop for hop in row.hops if hop not in lost])
        if active != expected or any("queued" in entry for entry in entries):
            return f"{row.prefix} has {active} next hops, expected {expected}"
    return None


def _groups(node: Node, link_down: bool) -> str | None:
    groups = [row["group"] for row in oracles.next_hop_objects(node) if "group" in row]
    return "a group has only one next hop" if any(len(group) < 2 for group in groups) else None


def _neighbors(node: Node, link_down: bool) -> str | None:
    known = {entry["dst"] for entry in oracles.neighbors(node) if "lladdr" in entry}
    for near, far in topology.link_ends(node.name):
        is_lost = link_down and near in topology.FAILING_LINK
        if (far.addresses[0] in known) == is_lost:
            return f"{far.addresses[0]} is {'still' if is_lost else 'not'} known on {near.name}"
    return None
