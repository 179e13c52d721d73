"""The output of "get router info bfd neighbor": BFD sessions of a routing daemon on this machine.

Source: the daemon's shell, `vtysh` (Debian package frr), with "show bfd peers" and, for a single
session, "show bfd peers counters". `render` writes the layout that the module's parser reads:

    BFD Peers:                              the parser skips the first line
    peer ADDRESS interface NAME             "vrf NAME" for a session without interface
        Status: up                          the daemon's lines
        Local echo receive interval: 50ms   timers beyond the three of a block
        Local timers
            Detect-multiplier: 3            exactly three lines
            Receive interval: 300ms
            Transmission interval: 300ms
        Remote timers                       the same
"""

from __future__ import annotations

import shutil
import subprocess
import time
from dataclasses import dataclass, field
from ipaddress import ip_address
from typing import NamedTuple

_TITLE = "BFD Peers:"
_TIMERS_IN_BLOCK = 3
_TIMEOUT = 5.0  # seconds for a command of the daemon's shell
_RETRY_AFTER = 60.0  # seconds, because the shell takes about one to find out that no daemon runs

# The path of a shell that found no daemon: the time at which it may be run again.
_retry_at: dict[str, float] = {}


class Key(NamedTuple):
    """The identity of a session; `scope` is "interface" or "vrf", `name` is its name."""

    address: str
    scope: str
    name: str


@dataclass
class Session:
    """A session as the daemon prints it, its lines stripped."""

    key: Key
    options: list[str] = field(default_factory=list)  # of the header, except the key
    fields: list[str] = field(default_factory=list)
    timers: dict[str, list[str]] = field(default_factory=lambda: {"Local": [], "Remote": []})


def neighbors(version: int) -> str | None:
    """Return all sessions with neighbors of an IP version (4 or 6), or None without a daemon.

    If there are several, it returns their headers only: the parser would add the fields of all to
    the first one.
    """
    peers = _vtysh("show bfd peers")
    if peers is None:
        return None
    sessions = [session for session in parse(peers) if _version(session) == version]
    if len(sessions) > 1:
        sessions = [Session(session.key) for session in sessions]
    return render(sessions)


def neighbor(version: int, address: str, name: str) -> str | None:
    """Return the session with a neighbor on an interface or VRF, including its counters.

    Returns:
        The text, without a session if there is none of that IP version; None without a daemon.
    """
    peers, counters = _vtysh("show bfd peers"), _vtysh("show bfd peers counters")
    if peers is None or counters is None:
        return None
    counter_fields = {session.key: session.fields for session in parse(counters)}
    found = [
        session
        for session in parse(peers)
        if (session.key.address, session.key.name) == (address, name)
        and _version(session) == version
    ]
    for session in found:
        session.fields += counter_fields.get(session.key, [])
    return render(found)


def parse(text: str) -> list[Session]:
    """Parse the sessions in the output of the daemon's shell."""
    sessions: list[Session] = []
    timers: list[str] | None = None
    depth = 0
    for line in text.splitlines():
        content = line.strip()
        indentation = len(line) - len(line.lstrip())
        if content.startswith("peer "):
            sessions.append(_parse_header(content))
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


def render(sessions: list[Session]) -> str:
    """Return the text for the module's parser."""
    return f"{_TITLE}\n" + "\n".join(_render_session(session) for session in sessions)


def _parse_header(header: str) -> Session:
    """Parse "peer ADDRESS [multihop] [local-address A] [vrf V] [interface I]"."""
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


def _render_session(session: Session) -> str:
    key = session.key
    lines = [f"peer {key.address} {key.scope} {key.name}"]
    lines += [f"    {line}" for line in session.options + session.fields]
    blocks = []
    for side, timers in session.timers.items():
        # A shorter block would make the parser consume the next line too.
        in_block = _TIMERS_IN_BLOCK if len(timers) >= _TIMERS_IN_BLOCK else 0
        lines += [f"    {side} {line[:1].lower()}{line[1:]}" for line in timers[in_block:]]
        if in_block:
            blocks += [f"    {side} timers", *(f"        {line}" for line in timers[:in_block])]
    return "\n".join(lines + blocks) + "\n"


def _version(session: Session) -> int | None:
    try:
        return ip_address(session.key.address).version
    except ValueError:
        return None


def _vtysh(command: str) -> str | None:
    """Return the output of the daemon's shell, or None.

    The exit status does not tell whether the command worked (it is 0 after a rejected login), the
    title line does.
    """
    shell = shutil.which("vtysh")
    if shell is None or time.monotonic() < _retry_at.get(shell, 0):
        return None
    try:
        done = subprocess.run(
            [shell, "-c", command],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            timeout=_TIMEOUT,
            check=False,
        )
        text = done.stdout.decode("utf-8", "replace")
    except (OSError, subprocess.TimeoutExpired):
        text = ""
    if _TITLE in text:
        return text
    _retry_at[shell] = time.monotonic() + _RETRY_AFTER
    return None
