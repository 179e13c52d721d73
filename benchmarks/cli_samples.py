"""Generates command output of any size for the benchmarks.

In the `REPEATING` variant of a table, ages and interfaces repeat, as in a real table. In `DISTINCT`
no value repeats, the worst case for a cache of strings. Addresses are private.
"""

from __future__ import annotations

import json
from enum import Enum


class Variant(Enum):
    """Whether values repeat within a text."""

    REPEATING = "repeating"
    DISTINCT = "distinct"


def arp(rows: int, variant: Variant) -> str:
    """Return the output of "get system arp", one row per neighbor."""
    lines = ["Address           Age(min)   Hardware Addr      Interface"]
    for i in range(rows):
        age, interface = (i * 7 % 60, _port(i)) if variant is Variant.REPEATING else (i, f"vlan{i}")
        lines.append(f"{_address(i):<17} {age:<10} {_mac(i):<18} {interface}")
    return _text(lines)


def routing(routes: int, variant: Variant) -> str:
    """Return the output of "get router info routing-table detail", one line per next hop."""
    lines = [
        "Routing entry for 192.0.2.0/24",
        '  Known via "ospf", distance 110, metric 20, best',
        "  Last update 01:02:03 ago",
    ]
    for i in range(routes):
        marker, interface = ("*", _port(i)) if variant is Variant.REPEATING else (f"*{i}", f"if{i}")
        lines.append(f"  {marker} {_address(i)}, via {interface}")
    return _text(lines)


def bfd(key_lines: int, variant: Variant) -> str:
    """Return the output of "get router info bfd neighbor": many sessions or one long (`DISTINCT`).

    The parser merges later sessions into the first, so that repeating sessions have a small result.
    `key_lines` is the number of lines with a key, including timer lines.
    """
    if variant is Variant.DISTINCT:
        lines = ["peer 10.0.0.2 interface port1", *map(_counter, range(key_lines))]
        return _text(["BFD Peers:", *lines])
    lines = ["BFD Peers:"]
    left = key_lines
    session = 0
    while left > 0:
        block = _session(session)
        lines.append(block[0])
        for line in block[1:]:
            if left > 0:
                lines.append(line)
                left -= not line.endswith("timers")
        session += 1
    return _text(lines)


def bfd_session(session: int) -> str:
    """Return the output for one session."""
    return _text(["BFD Peers:", *_session(session)])


def output(size: int, prompts: bool = False) -> str:
    """Return command output of `size` characters; `prompts` adds a pager prompt every 24 lines."""
    lines = arp(size // 50, Variant.REPEATING).split("\n")
    if prompts:
        lines = [("--More--" if i % 24 == 23 else "") + line for i, line in enumerate(lines)]
    return ("\n".join(lines) * 2)[:size]


def ports(size: int) -> list[dict[str, object]]:
    """Return a status reply of about `size` bytes of JSON, one object per switch port."""
    return [_port_state(i) for i in range(max(1, size // _PORT_BYTES))]


def _text(lines: list[str]) -> str:
    return "\n".join(lines) + "\n"


def _address(i: int) -> str:
    return f"10.{i >> 16 & 255}.{i >> 8 & 255}.{i & 255}"


def _mac(i: int) -> str:
    return f"02:00:00:{i >> 16 & 255:02x}:{i >> 8 & 255:02x}:{i & 255:02x}"


def _port(i: int) -> str:
    return f"port{i * 5 % 24 + 1}"


def _counter(i: int) -> str:
    kind, unit = [("Control input", " packets"), ("Session up", ""), ("Echo output", "")][i % 3]
    return f"\t\t{kind} {i}: {i * 31}{unit}"


def _session(i: int) -> list[str]:
    return [
        f"\tpeer {_address(i + 2)} interface port{i % 24 + 1}",
        f"\t\tID: {402993166 + i}",
        f"\t\tRemote ID: {1234 + i}",
        "\t\tStatus: up",
        f"\t\tUptime: {i % 60} minute(s)",
        "\t\tDiagnostics: ok",
        "\t\tRemote diagnostics: ok",
        f"\t\tControl packet input: {419 + i} packets",
        f"\t\tControl packet output: {418 + i} packets",
        "\t\tEcho packet input: 0 packets",
        "\t\tEcho packet output: 0 packets",
        "\t\tSession up events: 1",
        "\t\tSession down events: 0",
        "\t\tZebra notifications: 1",
        "\t\tLocal timers",
        "\t\t\tDetect Multiplier: 3",
        "\t\t\tReceive Interval: 300",
        "\t\t\tTransmit Interval: 300",
        "\t\tRemote timers",
        "\t\t\tDetect Multiplier: 3",
        "\t\t\tReceive Interval: 1000",
        "\t\t\tTransmit Interval: 1000",
    ]


def _port_state(i: int) -> dict[str, object]:
    return {
        "name": f"port{i + 1}",
        "status": "up" if i % 3 else "down",
        "speed": 10000 if i % 8 == 0 else 1000,
        "duplex": "full",
        "rx-bytes": 7315128 + i * 65537,
        "tx-bytes": 9042113 + i * 40961,
        "members": [f"port{i + 1}", f"port{i + 2}"],
        "lacp": {"mode": "active", "rate": "slow", "actor": 32768 + i},
    }


_PORT_BYTES = len(json.dumps(_port_state(10)))
