"""The routing daemons of a node: their configuration from the topology's rows, their start, and
whether the network has come to the state that the rows say."""

from __future__ import annotations

from typing import Any

from lab import oracles, topology
from lab.network import Network, Node, wait_until
from lab.topology import Route, Session

_FOLDER = "/usr/lib/frr"
_DAEMONS = ("zebra", "staticd", "bfdd")
# The kernel takes a lost next hop out of its groups. The daemon would keep the group for three
# minutes and put it to use again as it was, one next hop short: it shall forget it in a second.
_KEEP = "zebra nexthop-group keep 1\n"


def start(network: Network) -> None:
    """Starts the daemons of every node and hands them their configuration."""
    for node in network.nodes.values():
        node.run("sh", "-c", "cat > /etc/frr/frr.conf; : > /etc/frr/vtysh.conf", given=config(node))
        for daemon in _DAEMONS:
            node.run(f"{_FOLDER}/{daemon}", "-d", "--log", f"file:/var/log/frr/{daemon}.log")
    for node in network.nodes.values():
        node.run("vtysh", "-b")


def version(node: Node) -> str:
    """The daemons' version, as they say it."""
    return node.run("vtysh", "-c", "show version").splitlines()[0].split(" (")[0]


def config(node: Node) -> str:
    """The daemons' configuration of a node."""
    routes = [_route(row) for row in topology.ROUTES if row.node == node.name]
    sessions = [_session(row) for row in topology.SESSIONS if row.node == node.name]
    return "".join((_KEEP, *routes, "bfd\n", *sessions, "exit\n"))


def _route(row: Route) -> str:
    command = "ipv6 route" if ":" in row.prefix else "ip route"
    return "".join(f"{command} {row.prefix} {hop} {row.distance}\n" for hop in row.hops)


def _session(row: Session) -> str:
    over = "multihop" if row.port is None else ""
    at = f"interface {row.port}" if row.port else ""
    # The daemon wants the local address where it could not find it out.
    local = f"local-address {row.local}" if over or row.version == 6 else ""
    lines = (
        f"detect-multiplier {row.multiplier}",
        f"receive-interval {row.receive}",
        f"transmit-interval {row.transmit}",
        *row.settings,
    )
    header = " ".join(f"peer {row.peer} {over} {local} {at}".split())
    return f" {header}\n" + "".join(f"  {line}\n" for line in lines) + " exit\n"


def settle(network: Network, *, cut: bool) -> None:
    """Waits until sessions, routes and neighbours of every node are as the rows say, with the wire
    cut or whole. `LabError` names what is not."""
    wait_until(lambda: _missing(network, cut))


def _missing(network: Network, cut: bool) -> str | None:
    for name, node in network.nodes.items():
        for missing in (_sessions, _routes, _groups, _neighbors):
            if lacking := missing(node, cut):
                return f"{name}: {lacking}"
    return None


def _sessions(node: Node, cut: bool) -> str | None:
    told = {(peer["peer"], peer.get("interface", peer["vrf"])): peer for peer in oracles.bfd(node)}
    for row in topology.SESSIONS:
        if row.node != node.name:
            continue
        wanted = "down" if not row.answered or (cut and row.over_the_cut) else "up"
        peer = told.get((row.peer, row.place), {})
        # The first packets after the change still tell the timers of before.
        if peer.get("status") != wanted or (wanted == "up" and not _agreed(row, peer)):
            return f"the session with {row.peer} is not {wanted}"
    return None


def _agreed(row: Session, peer: dict[str, Any]) -> bool:
    """Whether the daemon has the other end's timers."""
    (other,) = (end for end in topology.SESSIONS if (end.peer, end.local) == (row.local, row.peer))
    told = (peer["remote-detect-multiplier"], peer["remote-transmit-interval"])
    return told == (other.multiplier, other.transmit)


def _routes(node: Node, cut: bool) -> str | None:
    lost = {address for end in topology.CUT for address in end.addresses} if cut else set()
    for row in topology.ROUTES:
        if row.node != node.name:
            continue
        entries = oracles.routes(node, 6 if ":" in row.prefix else 4).get(row.prefix, [])
        told = [entry for entry in entries if entry["distance"] == row.distance]
        active = sum(hop.get("active", False) for entry in told for hop in entry["nexthops"])
        wanted = len([hop for hop in row.hops if hop not in lost])
        if active != wanted or any("queued" in entry for entry in entries):
            return f"{row.prefix} has {active} next hops, not {wanted}"
    return None


def _groups(node: Node, cut: bool) -> str | None:
    groups = [row["group"] for row in oracles.next_hop_objects(node) if "group" in row]
    return "a group of one next hop is kept" if any(len(group) < 2 for group in groups) else None


def _neighbors(node: Node, cut: bool) -> str | None:
    known = {entry["dst"] for entry in oracles.neighbors(node) if "lladdr" in entry}
    for near, far in topology.ends(node.name):
        gone = cut and (near in topology.CUT)
        if (far.addresses[0] in known) == gone:
            return f"{far.addresses[0]} is {'still' if gone else 'not'} known on {near.name}"
    return None
