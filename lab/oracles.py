"""What the system itself says of a node: the kernel through `ip -j`, the routing daemons through
their own JSON. Nothing here knows of the module or of the stand-in appliance."""

from __future__ import annotations

import json
import re
import time
from collections.abc import Callable
from typing import Any, TypeVar

from lab.network import SECONDS, LabError, Node

Seen = TypeVar("Seen")
Done = TypeVar("Done")


def neighbors(node: Node) -> Any:
    """The kernel's IPv4 neighbours in every state, with their ages in seconds."""
    return node.json("ip", "-s", "-j", "-4", "neigh", "show", "nud", "all")


def macs(node: Node) -> dict[str, str]:
    """The hardware address of each port."""
    return {link["ifname"]: link["address"] for link in node.json("ip", "-j", "link")}


def kernel_routes(node: Node, version: int, *options: str) -> Any:
    """The kernel's routes of all tables."""
    return node.json("ip", *options, "-j", f"-{version}", "route", "show", "table", "all")


def kernel_route(node: Node, address: str) -> Any:
    """The kernel's route that covers an address. `LabError` for a route that refuses traffic."""
    (route,) = node.json("ip", "-j", "route", "get", "fibmatch", address)
    return route


def next_hop_objects(node: Node) -> Any:
    """The kernel's next-hop objects, groups of them included."""
    return node.json("ip", "-j", "nexthop", "show")


def daemon_protocols(node: Node) -> set[str]:
    """The kernel's numbers for routes of the routing daemons, as the daemons' package lists them
    for `ip`."""
    table = node.run("cat", "/etc/iproute2/rt_protos.d/frr.conf")
    lines = [line.split() for line in table.splitlines()]
    return {words[0] for words in lines if words and not words[0].startswith("#")}


def routes(node: Node, version: int) -> Any:
    """The daemon's routes: prefix to its entries."""
    (told,) = _daemon(node, f"show {_family(version)} route json")
    return told


def bfd(node: Node) -> Any:
    """The daemon's BFD sessions."""
    (told,) = _daemon(node, "show bfd peers json")
    return told


def bfd_with_counters(node: Node) -> tuple[Any, Any]:
    """The daemon's BFD sessions, and their counters."""
    peers, counters = _daemon(node, "show bfd peers json", "show bfd peers counters json")
    return peers, counters


def route_texts(node: Node, version: int, addresses: list[str]) -> dict[str, str]:
    """The daemon's own texts of the entries that cover the addresses, by prefix."""
    commands = [f"show {_family(version)} route {address}" for address in addresses]
    text = _shell(node, *commands)
    texts: dict[str, str] = {}
    for block in re.findall(r"^Routing entry for .*?(?=^Routing entry for |\Z)", text, re.M | re.S):
        prefix = block.split()[3]
        texts[prefix] = texts.get(prefix, "") + block
    return texts


def _family(version: int) -> str:
    return "ip" if version == 4 else "ipv6"


def _shell(node: Node, *commands: str) -> str:
    return node.run("vtysh", *(word for command in commands for word in ("-c", command)))


def _daemon(node: Node, *commands: str) -> list[Any]:
    """The JSON texts that the daemons' shell prints one after the other."""
    text = _shell(node, *commands).strip()
    told = []
    while text:
        value, end = json.JSONDecoder().raw_decode(text)
        told.append(value)
        text = text[end:].lstrip()
    return told


def steady(
    look: Callable[[], Seen], act: Callable[[], Done], still: Callable[[Seen], object]
) -> tuple[Seen, Done, Seen]:
    """What is seen before an action, what the action gives, and what is seen after it, once what
    `still` picks out of either sight is the same: then the action met nothing else."""
    deadline = time.monotonic() + SECONDS
    before = look()
    while True:
        done = act()
        after = look()
        if still(before) == still(after):
            return before, done, after
        if time.monotonic() > deadline:
            raise LabError(f"it does not come to rest: {still(before)}, then {still(after)}")
        before = after
