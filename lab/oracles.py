"""Queries the system's own tools in a node: `ip -j` for the kernel and `vtysh` for the daemons.

This file does not use the module or the simulator.
"""

from __future__ import annotations

import json
import re
import time
from collections.abc import Callable
from typing import Any, TypeVar

from lab.network import TIMEOUT, LabError, Node

Sample = TypeVar("Sample")
Result = TypeVar("Result")


def neighbors(node: Node) -> Any:
    """Return the kernel's IPv4 neighbors in every state, with their ages in seconds."""
    return node.json("ip", "-s", "-j", "-4", "neigh", "show", "nud", "all")


def macs(node: Node) -> dict[str, str]:
    """Return the MAC address of each port."""
    return {link["ifname"]: link["address"] for link in node.json("ip", "-j", "link")}


def kernel_routes(node: Node, version: int, *options: str) -> Any:
    """Return the kernel's routes of all tables."""
    return node.json("ip", *options, "-j", f"-{version}", "route", "show", "table", "all")


def kernel_route(node: Node, address: str) -> Any:
    """Return the kernel's route for an address.

    Raises:
        LabError: The route rejects traffic.
    """
    (route,) = node.json("ip", "-j", "route", "get", "fibmatch", address)
    return route


def next_hop_objects(node: Node) -> Any:
    """Return the kernel's next-hop objects and groups."""
    return node.json("ip", "-j", "nexthop", "show")


def daemon_protocols(node: Node) -> set[str]:
    """Return the kernel's protocol numbers of the routing daemons, from their package's file."""
    table = node.run("cat", "/etc/iproute2/rt_protos.d/frr.conf")
    lines = [line.split() for line in table.splitlines()]
    return {words[0] for words in lines if words and not words[0].startswith("#")}


def routes(node: Node, version: int) -> Any:
    """Return the daemon's routes by prefix."""
    (by_prefix,) = _daemon(node, f"show {_family(version)} route json")
    return by_prefix


def bfd(node: Node) -> Any:
    """Return the daemon's BFD sessions."""
    (peers,) = _daemon(node, "show bfd peers json")
    return peers


def bfd_with_counters(node: Node) -> tuple[Any, Any]:
    """Return the daemon's BFD sessions and their counters."""
    peers, counters = _daemon(node, "show bfd peers json", "show bfd peers counters json")
    return peers, counters


def route_texts(node: Node, version: int, addresses: list[str]) -> dict[str, str]:
    """Return the daemon's texts of the routes for the addresses, by prefix."""
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
    """Return the JSON values that the daemons' shell prints in sequence."""
    text = _shell(node, *commands).strip()
    values = []
    while text:
        value, end = json.JSONDecoder().raw_decode(text)
        values.append(value)
        text = text[end:].lstrip()
    return values


def sample_until_stable(
    look: Callable[[], Sample],
    act: Callable[[], Result],
    stable_part: Callable[[Sample], object],
) -> tuple[Sample, Result, Sample]:
    """Return a sample, the result of an action and another sample.

    Repeats until `stable_part` of both samples is equal, so that nothing changed during the action.

    Raises:
        LabError: The samples keep changing.
    """
    deadline = time.monotonic() + TIMEOUT
    before = look()
    while True:
        result = act()
        after = look()
        if stable_part(before) == stable_part(after):
            return before, result, after
        if time.monotonic() > deadline:
            raise LabError(f"unstable: {stable_part(before)}, then {stable_part(after)}")
        before = after
