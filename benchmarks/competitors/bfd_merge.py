"""What the peers that tell lines apart by patterns have in common: a BFD session made of the lines
that a pattern has taken apart."""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from typing import Any


def merge(lines: Iterable[Sequence[Any]], list_bfd: dict[str, Any]) -> dict[str, Any]:
    """Puts the session of the lines into `list_bfd`, and returns that.

    A line is (address, interface, kind of timers, key, value), with nothing where it has no such
    part.
    """
    session: dict[str, Any] = {}
    name = None
    timers: dict[str, str] = {}
    timer_lines = 0
    for address, interface, kind, key, value in lines:
        if key:
            key = key.lower().replace(" ", "_")
            if timer_lines:
                timer_lines -= 1
                timers[key] = value
            else:
                session[key] = value.replace("packets", "")
        elif kind:
            timer_lines = 3
            timers = session[f"{kind.lower()}_timers"] = {}
        elif name is None:
            name = f"{address}_{interface}"
            session.update(neighbor_ip=address, interface=interface, name=name)
    if name is not None:
        list_bfd[name] = {**list_bfd[name], **session} if name in list_bfd else session
    return list_bfd
