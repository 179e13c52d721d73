"""Compares the BFD sessions of a node with every field of the daemon's JSON."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

from lab import oracles
from lab.matchers import Duration, InRange, Outcome
from lab.network import LabError, Node

_SUMMARY = {4: "get router info bfd neighbor", 6: "get router info6 bfd neighbor"}

# The header has the peer and its location; the other keys are not in the command's output.
_HEADER_KEYS = {"peer", "interface"}
_MISSING_KEYS = {
    "local": "the output has no local address",
    "passive-mode": "a line without a colon, which the parser skips",
}


def _text(low: Any, high: Any) -> object:
    return str(low)


def _milliseconds(low: Any, high: Any) -> object:
    return f"{low}ms" if low else "disabled"


def _packets(low: Any, high: Any) -> object:
    return InRange(low, high, suffix=" ")  # the parser removes "packets" and leaves the space


# By the daemon's key: the module's keys, and the expected value, made from the daemon's values
# before and after the call.
_FIELDS: dict[str, tuple[tuple[str, ...], Callable[[Any, Any], object]]] = {
    "id": (("id",), _text),
    "remote-id": (("remote_id",), _text),
    "minimum-ttl": (("minimum_ttl",), _text),
    "status": (("status",), _text),
    "uptime": (("uptime",), Duration),
    "downtime": (("downtime",), Duration),
    "diagnostic": (("diagnostics",), _text),
    "remote-diagnostic": (("remote_diagnostics",), _text),
    "detect-multiplier": (("local_timers", "detect-multiplier"), _text),
    "receive-interval": (("local_timers", "receive_interval"), _milliseconds),
    "transmit-interval": (("local_timers", "transmission_interval"), _milliseconds),
    "echo-receive-interval": (("local_echo_receive_interval",), _milliseconds),
    "echo-transmit-interval": (("local_echo_transmission_interval",), _milliseconds),
    "remote-detect-multiplier": (("remote_timers", "detect-multiplier"), _text),
    "remote-receive-interval": (("remote_timers", "receive_interval"), _milliseconds),
    "remote-transmit-interval": (("remote_timers", "transmission_interval"), _milliseconds),
    "remote-echo-receive-interval": (("remote_echo_receive_interval",), _milliseconds),
    "control-packet-input": (("control_packet_input",), _packets),
    "control-packet-output": (("control_packet_output",), _packets),
    "echo-packet-input": (("echo_packet_input",), _packets),
    "echo-packet-output": (("echo_packet_output",), _packets),
    "session-up": (("session_up_events",), InRange),
    "session-down": (("session_down_events",), InRange),
    "zebra-notifications": (("zebra_notifications",), InRange),
}
# A session has one of these, depending on its state.
_STATE_KEYS = ("uptime", "downtime")
_CHANGING_KEYS = {"uptime", "downtime", "rtt-min", "rtt-avg", "rtt-max"} | {
    key for key, (_, form) in _FIELDS.items() if form in (_packets, InRange)
}


def sessions(node: Node) -> Outcome:
    """Compare every field of every session, by the command for each session."""
    before, actual, after = _sample(node, lambda: call_for_each_session(node))
    return Outcome(actual, {name: _expected(before[name], after[name]) for name in before})


def listing(node: Node) -> Outcome:
    """Compare `list_bfd_neighbor` with the first session of each IP version.

    The parser stops at the second header of a summary, as required. It also keeps fields that the
    daemon does not report any more, such as the downtime of a session that is up again.
    """

    def act() -> tuple[Any, Any]:
        known = node.agent.call("get_bfd_neighbor", "no session", output="").value
        return known, node.agent.call_live("list_bfd_neighbor")

    before, (known, actual), after = _sample(node, act)
    first = [name for version in _SUMMARY for name in _names(before, version)[:1]]
    expected = []
    for name in first:
        old = {key: value for key, value in known.get(name, {}).items() if key in _STATE_KEYS}
        expected.append({**old, **_expected(before[name], after[name])})
    return Outcome(actual, expected)


def summaries(node: Node) -> Outcome:
    """Compare the headers of the summaries with all sessions of their IP version."""
    before, texts, _ = _sample(
        node,
        lambda: {
            version: node.agent.call_live("get_cli_command_output", command)
            for version, command in _SUMMARY.items()
        },
    )
    headers = {
        version: [line.split() for line in text.splitlines() if line.startswith("peer ")]
        for version, text in texts.items()
    }
    expected = {
        version: [
            ["peer", before[name]["peer"], _scope(before[name]), _location(before[name])]
            for name in _names(before, version)
        ]
        for version in _SUMMARY
    }
    return Outcome(headers, expected)


def call_for_each_session(node: Node) -> dict[str, Any]:
    """Return the module's result for every session of the daemon, by name."""
    return {_name(peer): _call_for_session(node, peer) for peer in oracles.bfd(node)}


def _call_for_session(node: Node, peer: Any) -> Any:
    command = f"{_SUMMARY[_version(peer)]} {peer['peer']} {_location(peer)}"
    sessions = node.agent.call_live("get_bfd_neighbor", command, {})
    if list(sessions) != [_name(peer)]:
        raise LabError(f"{command}: {list(sessions)}")
    return sessions[_name(peer)]


def _sample(node: Node, act: Callable[[], Any]) -> Any:
    def stable_part(sessions: dict[str, Any]) -> Any:
        return {
            name: {key: value for key, value in peer.items() if key not in _CHANGING_KEYS}
            for name, peer in sessions.items()
        }

    return oracles.sample_until_stable(lambda: _daemon_sessions(node), act, stable_part)


def _daemon_sessions(node: Node) -> dict[str, Any]:
    """Return the daemon's sessions with their counters, by the module's names."""
    peers, counters = oracles.bfd_with_counters(node)
    sessions = {_name(peer): dict(peer) for peer in peers}
    for row in counters:
        sessions[_name(row)].update(row)
    return sessions


def _expected(before: Any, after: Any) -> dict[str, Any]:
    """Return the expected dictionary of a session.

    A daemon's key that is not in a table raises KeyError: the comparison would be incomplete.
    """
    session: dict[str, Any] = {
        "neighbor_ip": before["peer"],
        "interface": _location(before),
        "name": _name(before),
        "peer_type": "configured",  # not in the JSON; true for all of them
        "rtt_min/avg/max": f"{before['rtt-min']}/{before['rtt-avg']}/{before['rtt-max']} usec",
    }
    for key, low in before.items():
        if key in {*_HEADER_KEYS, *_MISSING_KEYS} or key.startswith("rtt-"):
            continue
        if key == "vrf":
            if "interface" in before:
                session["vrf"] = low
        elif key == "multihop":
            if low:
                session["multihop"] = "yes"
        else:
            path, form = _FIELDS[key]
            target = session
            for step in path[:-1]:
                target = target.setdefault(step, {})
            target[path[-1]] = form(low, after[key])
    return session


def _names(sessions: dict[str, Any], version: int) -> list[str]:
    return [name for name, peer in sessions.items() if _version(peer) == version]


def _name(peer: Any) -> str:
    return f"{peer['peer']}_{_location(peer)}"


def _scope(peer: Any) -> str:
    return "interface" if "interface" in peer else "vrf"


def _location(peer: Any) -> str:
    return str(peer.get("interface", peer["vrf"]))


def _version(peer: Any) -> int:
    return 6 if ":" in peer["peer"] else 4
