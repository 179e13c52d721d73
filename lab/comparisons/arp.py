"""Compares the ARP table of a node with the kernel's neighbors and the peers' ports."""

from __future__ import annotations

from typing import Any

from lab import oracles, topology
from lab.matchers import InRange, Outcome
from lab.network import Node

# The states that the simulator's ARP table does not list.
_UNLISTED = {"FAILED", "NOARP", "NONE"}


def entries(node: Node) -> Outcome:
    """Compare every neighbor: age, MAC address and port, in the kernel's order."""
    before, actual, after = _sample(node, "get_system_arp_result")
    return Outcome(actual, _expected_entries(before, after))


def peer_macs(node: Node) -> Outcome:
    """Compare the MAC address of each link's neighbor with that of the peer's port."""
    before, actual, _ = _sample(node, "get_system_arp_result")
    resolved = {entry["dst"] for entry in before if "lladdr" in entry}
    macs = {(entry["ipAddress"], entry["interface"]): entry["mac"] for entry in actual}
    peers = [
        (near.name, far.addresses[0], far)
        for near, far in topology.link_ends(node.name)
        if far.addresses[0] in resolved
    ]
    return Outcome(
        {address: macs.get((address, port)) for port, address, _ in peers},
        {address: oracles.macs(node.peers[far.node])[far.name] for _, address, far in peers},
    )


def text(node: Node) -> Outcome:
    """Compare the command's text: a header line, then the columns of every neighbor."""
    before, output, after = _sample(node, "get_cli_command_output", "get system arp")
    header, *rows = output.splitlines()
    return Outcome(
        [header.split()[0], *(row.split() for row in rows)],
        ["Address", *(list(entry.values()) for entry in _expected_entries(before, after))],
    )


def _sample(node: Node, function: str, *arguments: str) -> Any:
    def stable_part(neighbors: Any) -> list[Any]:
        return [
            (entry["dst"], entry["dev"], entry.get("lladdr"), _is_listed(entry), _state(entry))
            for entry in neighbors
        ]

    return oracles.sample_until_stable(
        lambda: oracles.neighbors(node),
        lambda: node.agent.call_live(function, *arguments),
        stable_part,
    )


def _expected_entries(before: Any, after: Any) -> list[dict[str, Any]]:
    return [
        {
            "ipAddress": entry["dst"],
            "age": _age(entry, later),
            "mac": "(incomplete)" if "INCOMPLETE" in entry["state"] else entry["lladdr"],
            "interface": entry["dev"],
        }
        for entry, later in zip(before, after)
        if _is_listed(entry)
    ]


def _age(entry: Any, later: Any) -> object:
    if _state(entry):
        return "-"
    return InRange(*sorted(each["confirmed"] // 60 for each in (entry, later)))


def _is_listed(entry: Any) -> bool:
    return not _UNLISTED & set(entry["state"])


def _state(entry: Any) -> str:
    """Return the state if the ARP table shows it, else an empty string."""
    return next((name for name in ("PERMANENT", "INCOMPLETE") if name in entry["state"]), "")
