"""Counters of the machine's network ports. Source: psutil, which reads /proc/net/dev."""

from __future__ import annotations

from typing import Any

import psutil


def statistics(request: dict[str, Any]) -> list[dict[str, Any]]:
    """Return an entry for each port, or for the port in the request.

    An entry has `port_name` and counters since the port was created: `bytes_sent`, `bytes_recv`,
    `packets_sent`, `packets_recv`, the errors `errin`, `errout`, the drops `dropin`, `dropout`.
    """
    wanted = request.get("port_name")
    ports = psutil.net_io_counters(pernic=True, nowrap=False)
    return [
        {"port_name": name, **counters._asdict()}
        for name, counters in ports.items()
        if wanted is None or name == wanted
    ]
