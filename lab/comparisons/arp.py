"""The ARP table: every IPv4 neighbour of a node against the kernel's list and the far ends."""

from __future__ import annotations

from typing import Any

from lab import oracles, topology
from lab.comparisons.comparison import Compared
from lab.matchers import Between
from lab.network import Node

# As the stand-in's listing leaves them out: they say nothing about a neighbour.
_LEFT_OUT = {"FAILED", "NOARP", "NONE"}
_COMMAND = "get system arp"


def entries(node: Node) -> Compared:
    """Every neighbour with its age, hardware address and port, in the kernel's order."""
    before, said, after = _while_steady(node, lambda: node.inside.live("get_system_arp_result"))
    return Compared(said, _expected(before, after))


def far_ends(node: Node) -> Compared:
    """Each wire's neighbour has the hardware address that the far port has in its own node; where
    the kernel knows none, the listing has none."""
    before, said, _ = _while_steady(node, lambda: node.inside.live("get_system_arp_result"))
    known = {entry["dst"] for entry in before if "lladdr" in entry}
    told = {(entry["ipAddress"], entry["interface"]): entry["mac"] for entry in said}
    wires = [(near.name, far.addresses[0], far) for near, far in topology.ends(node.name)]
    return Compared(
        {address: told.get((address, port)) for port, address, _ in wires if address in known},
        {
            address: oracles.macs(node.peers[far.node])[far.name]
            for _, address, far in wires
            if address in known
        },
    )


def text(node: Node) -> Compared:
    """The listing as text: a header line, then the columns of every neighbour."""
    before, said, after = _while_steady(
        node, lambda: node.inside.live("get_cli_command_output", _COMMAND)
    )
    header, *rows = said.splitlines()
    return Compared(
        {"header": header.split()[0], "rows": [row.split() for row in rows]},
        {
            "header": "Address",
            "rows": [list(entry.values()) for entry in _expected(before, after)],
        },
    )


def _while_steady(node: Node, act: Any) -> Any:
    def still(seen: Any) -> list[Any]:
        return [(e["dst"], e["dev"], e.get("lladdr"), _shown(e), _state(e)) for e in seen]

    return oracles.steady(lambda: oracles.neighbors(node), act, still)


def _expected(before: Any, after: Any) -> list[dict[str, Any]]:
    return [
        {
            "ipAddress": entry["dst"],
            "age": _age(entry, later),
            "mac": "(incomplete)" if "INCOMPLETE" in entry["state"] else entry["lladdr"],
            "interface": entry["dev"],
        }
        for entry, later in zip(before, after)
        if _shown(entry)
    ]


def _age(entry: Any, later: Any) -> object:
    if _state(entry) in ("PERMANENT", "INCOMPLETE"):
        return "-"
    ages = sorted(seen["confirmed"] // 60 for seen in (entry, later))
    return Between(ages[0], ages[1])


def _shown(entry: Any) -> bool:
    return not _LEFT_OUT & set(entry["state"])


def _state(entry: Any) -> str:
    """The state, as far as the listing tells it."""
    for state in ("PERMANENT", "INCOMPLETE"):
        if state in entry["state"]:
            return state
    return ""
