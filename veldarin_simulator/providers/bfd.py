"""BFD neighbours of a routing daemon on this machine, for "get router info bfd neighbor".

Source: the daemon's shell, `vtysh` (Debian package frr): "show bfd peers" and, for one neighbour,
"show bfd peers counters". Its text is brought into the layout that the module's BFD parser reads:

    BFD Peers:                              the parser skips the first line
    peer ADDRESS interface NAME             "vrf NAME" for a session bound to no interface
        Status: up                          what the daemon prints, line by line
        Local echo receive interval: 50ms   timers beyond the three that a block holds
        Local timers
            Detect-multiplier: 3            exactly three lines
            Receive interval: 300ms
            Transmission interval: 300ms
        Remote timers                       the same
"""

from __future__ import annotations

import shutil
import subprocess
from dataclasses import dataclass, field
from ipaddress import ip_address
from typing import NamedTuple

_TITLE = "BFD Peers:"
_NO_SESSIONS = f"{_TITLE}\n"
_TIMERS_IN_BLOCK = 3
_PATIENCE = 5.0  # seconds for one command of the daemon's shell


class Key(NamedTuple):
    """What tells sessions apart: the neighbour's address, and the interface or VRF ("interface" or
    "vrf", then its name)."""

    address: str
    scope: str
    place: str


@dataclass
class Session:
    """One session as the daemon prints it, its lines stripped."""

    key: Key
    options: list[str] = field(default_factory=list)  # of the header, beyond the key
    fields: list[str] = field(default_factory=list)
    timers: dict[str, list[str]] = field(default_factory=lambda: {"Local": [], "Remote": []})


def neighbors(version: int) -> str | None:
    """All sessions with neighbours of that IP version (4 or 6), or None where no daemon answers.

    A single session is told whole, several by their header lines alone: the parser would give the
    first one the fields of all.
    """
    peers = _shell("show bfd peers")
    if peers is None:
        return None
    sessions = [session for session in parsed(peers) if _version(session) == version]
    if len(sessions) > 1:
        sessions = [Session(session.key) for session in sessions]
    return rendered(sessions)


def neighbor(version: int, address: str, place: str) -> str | None:
    """The session with that neighbour on that interface (or VRF), its counters included; no
    session if there is none, or if the address is of the other IP version. None where no daemon
    answers."""
    peers, counters = _shell("show bfd peers"), _shell("show bfd peers counters")
    if peers is None or counters is None:
        return None
    counted = {session.key: session.fields for session in parsed(counters)}
    found = [
        session
        for session in parsed(peers)
        if (session.key.address, session.key.place) == (address, place)
        and _version(session) == version
    ]
    for session in found:
        session.fields += counted.get(session.key, [])
    return rendered(found)


def parsed(text: str) -> list[Session]:
    """The sessions in the text of the daemon's shell, in its order."""
    sessions: list[Session] = []
    timers: list[str] | None = None
    depth = 0
    for line in text.splitlines():
        content = line.strip()
        indentation = len(line) - len(line.lstrip())
        if content.startswith("peer "):
            sessions.append(_headed(content))
            timers = None
        elif not sessions or not content:
            continue
        elif content.rstrip(":") in ("Local timers", "Remote timers"):
            timers, depth = sessions[-1].timers[content.split()[0]], indentation
        elif timers is not None and indentation > depth:
            timers.append(content)
        else:
            timers = None
            sessions[-1].fields.append(content)
    return sessions


def rendered(sessions: list[Session]) -> str:
    """The text for the module's parser."""
    return _NO_SESSIONS + "\n".join(_block(session) for session in sessions)


def _headed(header: str) -> Session:
    """A session from "peer ADDRESS [multihop] [local-address A] [vrf V] [interface I]"."""
    address, *words = header.split()[1:]
    multihop = "multihop" in words
    if multihop:
        words.remove("multihop")
    options = dict(zip(words[::2], words[1::2]))
    scope = "interface" if "interface" in options else "vrf"
    session = Session(Key(address, scope, options.get(scope, "default")))
    if scope == "interface" and "vrf" in options:
        session.options.append(f"VRF: {options['vrf']}")
    if multihop:
        session.options.append("Multihop: yes")
    return session


def _block(session: Session) -> str:
    key = session.key
    lines = [f"peer {key.address} {key.scope} {key.place}"]
    lines += [f"    {line}" for line in session.options + session.fields]
    blocks = []
    for side, timers in session.timers.items():
        # A block that is short of a line would swallow the line after it: then there is none.
        held = _TIMERS_IN_BLOCK if len(timers) >= _TIMERS_IN_BLOCK else 0
        lines += [f"    {side} {line[:1].lower()}{line[1:]}" for line in timers[held:]]
        if held:
            blocks += [f"    {side} timers", *(f"        {line}" for line in timers[:held])]
    lines += blocks
    return "\n".join(lines) + "\n"


def _version(session: Session) -> int | None:
    try:
        return ip_address(session.key.address).version
    except ValueError:
        return None


def _shell(command: str) -> str | None:
    """What the daemon's shell prints, or None: not installed, no daemon, no permission, no answer
    in time. The shell's exit status is no guide (0 after a refused login), its title line is."""
    shell = shutil.which("vtysh")
    if shell is None:
        return None
    try:
        done = subprocess.run(
            [shell, "-c", command],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            timeout=_PATIENCE,
            check=False,
        )
    except (OSError, subprocess.TimeoutExpired):
        return None
    text = done.stdout.decode("utf-8", "replace")
    return text if _TITLE in text else None
