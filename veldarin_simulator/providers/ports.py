"""Counters of the machine's network ports. Source: psutil, which reads /proc/net/dev."""

from __future__ import annotations

from typing import Any

import psutil


def statistics(request: dict[str, Any]) -> list[dict[str, Any]]:
    """One entry for each port since it was made, or for the one that the request names.

    An entry: `port_name`; `bytes_sent`, `bytes_recv`; `packets_sent`, `packets_recv`; the errors
    `errin`, `errout`; the packets dropped `dropin`, `dropout`. An unknown name gives no entry.
    """
    wanted = request.get("port_name")
    ports = psutil.net_io_counters(pernic=True, nowrap=False)
    return [
        {"port_name": name, **counters._asdict()}
        for name, counters in ports.items()
        if wanted is None or name == wanted
    ]
