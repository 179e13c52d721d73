"""The BFD sessions: every field of every session that the daemon tells in JSON, by a table of its
keys, and which sessions the summaries and the listing hold."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

from lab import oracles
from lab.comparisons.comparison import Compared
from lab.matchers import Between, Lasting
from lab.network import LabError, Node

_SUMMARY = {4: "get router info bfd neighbor", 6: "get router info6 bfd neighbor"}

# Told by the daemon, and no part of the layout: the neighbour and its place make up the header.
_IN_THE_HEADER = {"peer", "interface"}
_NOT_CARRIED = {
    "local": "the header has no room for the own address",
    "passive-mode": "a line without a colon, which the parser passes over",
}


def _plain(low: Any, high: Any) -> object:
    return str(low)


def _milliseconds(low: Any, high: Any) -> object:
    return f"{low}ms" if low else "disabled"


def _lasting(low: Any, high: Any) -> object:
    return Lasting(low, high)


def _events(low: Any, high: Any) -> object:
    return Between(low, high)


def _packets(low: Any, high: Any) -> object:
    return Between(low, high, after=" ")  # the parser takes "packets" away and leaves the blank


# The daemon's key, where the module has it, and the text that it must be, from the value before the
# call and the value after it.
_FIELDS: dict[str, tuple[tuple[str, ...], Callable[[Any, Any], object]]] = {
    "id": (("id",), _plain),
    "remote-id": (("remote_id",), _plain),
    "minimum-ttl": (("minimum_ttl",), _plain),
    "status": (("status",), _plain),
    "uptime": (("uptime",), _lasting),
    "downtime": (("downtime",), _lasting),
    "diagnostic": (("diagnostics",), _plain),
    "remote-diagnostic": (("remote_diagnostics",), _plain),
    "detect-multiplier": (("local_timers", "detect-multiplier"), _plain),
    "receive-interval": (("local_timers", "receive_interval"), _milliseconds),
    "transmit-interval": (("local_timers", "transmission_interval"), _milliseconds),
    "echo-receive-interval": (("local_echo_receive_interval",), _milliseconds),
    "echo-transmit-interval": (("local_echo_transmission_interval",), _milliseconds),
    "remote-detect-multiplier": (("remote_timers", "detect-multiplier"), _plain),
    "remote-receive-interval": (("remote_timers", "receive_interval"), _milliseconds),
    "remote-transmit-interval": (("remote_timers", "transmission_interval"), _milliseconds),
    "remote-echo-receive-interval": (("remote_echo_receive_interval",), _milliseconds),
    "control-packet-input": (("control_packet_input",), _packets),
    "control-packet-output": (("control_packet_output",), _packets),
    "echo-packet-input": (("echo_packet_input",), _packets),
    "echo-packet-output": (("echo_packet_output",), _packets),
    "session-up": (("session_up_events",), _events),
    "session-down": (("session_down_events",), _events),
    "zebra-notifications": (("zebra_notifications",), _events),
}
# Told in one state of a session and not in the other.
_PASSING = ("uptime", "downtime")
_MOVING = {"uptime", "downtime", "rtt-min", "rtt-avg", "rtt-max"} | {
    key for key, (_, form) in _FIELDS.items() if form in (_packets, _events)
}


def sessions(node: Node) -> Compared:
    """Every session, each asked for by its address and place: every field."""

    before, said, after = _while_steady(node, lambda: told(node))
    return Compared(said, {name: _expected(before[name], after[name]) for name in before})


def listing(node: Node) -> Compared:
    """The listing: of the sessions of an IP version the first that the daemon tells, with every
    field. The others are in the summary's text, but its second header line ends what the parser
    takes from it: that is required of the parser. So is that a field stays that the daemon tells no
    more: of a session that was down, its downtime."""

    def act() -> tuple[Any, Any]:
        kept = node.inside.call("get_bfd_neighbor", "no session", output="").value
        return kept, node.inside.live("list_bfd_neighbor")

    before, (kept, said), after = _while_steady(node, act)
    first = [name for version in _SUMMARY for name in _names(before, version)[:1]]
    wanted = []
    for name in first:
        old = {key: value for key, value in kept.get(name, {}).items() if key in _PASSING}
        wanted.append({**old, **_expected(before[name], after[name])})
    return Compared(said, wanted)


def summaries(node: Node) -> Compared:
    """The summary commands' texts name every session of their IP version."""
    before, said, _ = _while_steady(
        node,
        lambda: {
            version: node.inside.live("get_cli_command_output", command)
            for version, command in _SUMMARY.items()
        },
    )
    headers = {
        version: [line.split() for line in text.splitlines() if line.startswith("peer ")]
        for version, text in said.items()
    }
    wanted = {
        version: [
            ["peer", before[name]["peer"], _scope(before[name]), _place(before[name])]
            for name in _names(before, version)
        ]
        for version in _SUMMARY
    }
    return Compared(headers, wanted)


def told(node: Node) -> dict[str, Any]:
    """What the module says of every session that the daemon has, by name."""
    return {_name(peer): _asked(node, peer) for peer in oracles.bfd(node)}


def _asked(node: Node, peer: Any) -> Any:
    command = f"{_SUMMARY[_version(peer)]} {peer['peer']} {_place(peer)}"
    found = node.inside.live("get_bfd_neighbor", command, {})
    if list(found) != [_name(peer)]:
        raise LabError(f"{command}: {list(found)}")
    return found[_name(peer)]


def _while_steady(node: Node, act: Callable[[], Any]) -> Any:
    def still(seen: dict[str, Any]) -> Any:
        return {
            name: {key: value for key, value in peer.items() if key not in _MOVING}
            for name, peer in seen.items()
        }

    return oracles.steady(lambda: _seen(node), act, still)


def _seen(node: Node) -> dict[str, Any]:
    """The daemon's sessions by the module's names for them, their counters included."""
    peers, counters = oracles.bfd_with_counters(node)
    seen = {_name(peer): dict(peer) for peer in peers}
    for counted in counters:
        seen[_name(counted)].update(counted)
    return seen


def _expected(before: Any, after: Any) -> dict[str, Any]:
    """The module's dictionary of a session. A key that no row knows is an error: then the daemon
    tells more than is compared."""
    made: dict[str, Any] = {
        "neighbor_ip": before["peer"],
        "interface": _place(before),
        "name": _name(before),
        "peer_type": "configured",  # not in the JSON; all of them are
        "rtt_min/avg/max": f"{before['rtt-min']}/{before['rtt-avg']}/{before['rtt-max']} usec",
    }
    for key, low in before.items():
        if key in _IN_THE_HEADER or key in _NOT_CARRIED or key.startswith("rtt-"):
            continue
        if key == "vrf":
            if "interface" in before:
                made["vrf"] = low
        elif key == "multihop":
            if low:
                made["multihop"] = "yes"
        else:
            path, form = _FIELDS[key]
            place = made
            for step in path[:-1]:
                place = place.setdefault(step, {})
            place[path[-1]] = form(low, after[key])
    return made


def _names(seen: dict[str, Any], version: int) -> list[str]:
    return [name for name, peer in seen.items() if _version(peer) == version]


def _name(peer: Any) -> str:
    return f"{peer['peer']}_{_place(peer)}"


def _scope(peer: Any) -> str:
    return "interface" if "interface" in peer else "vrf"


def _place(peer: Any) -> str:
    return str(peer.get("interface", peer["vrf"]))


def _version(peer: Any) -> int:
    return 6 if ":" in peer["peer"] else 4
