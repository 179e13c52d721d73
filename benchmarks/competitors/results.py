"""The module's results, built from what a pattern matched."""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from typing import Any


def routing_entry(header: Any, table: list[Any]) -> dict[str, Any]:
    """Return the routing-table entry; `header` is subscriptable by the names of its fields."""
    return {
        "entry": header["entry"],
        "distance": header["distance"],
        "metric": header["metric"],
        "lastUpdate": header["lastUpdate"],
        "other": f"{header['known']}, {header['best']}",
        "table": table,
    }


def merge_session(lines: Iterable[Sequence[Any]], list_bfd: dict[str, Any]) -> dict[str, Any]:
    """Merge the BFD session of the lines into `list_bfd` and return that.

    Args:
        lines: (address, interface, kind of timers, key, value), empty if missing.
        list_bfd: The sessions that are already known, by name.
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
