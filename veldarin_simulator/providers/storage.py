"""File systems, in place of the appliance's flash partitions.

Source: psutil. The list has the mounted file systems on block devices, each device once; without
any (in a container), the root file system.
"""

from __future__ import annotations

import os
from typing import Any

import psutil


def flash_list(_request: object = None) -> list[dict[str, Any]]:
    """Return an entry for each file system, in mount order.

    An entry has `device`, `mountpoint`, `filesystem` (its type), `read_only`, and `size`, `used`
    and `free` in bytes; these are null if the file system cannot be read (a dead network mount).
    """
    return [_entry(partition) for partition in _partitions()]


def _partitions() -> list[Any]:
    by_device: dict[str, Any] = {}
    for partition in psutil.disk_partitions(all=False):
        by_device.setdefault(partition.device, partition)
    if by_device:
        return list(by_device.values())
    return [mount for mount in psutil.disk_partitions(all=True) if mount.mountpoint == "/"][-1:]


def _entry(partition: Any) -> dict[str, Any]:
    try:
        usage = psutil.disk_usage(partition.mountpoint)
    except OSError:
        size = used = free = None
    else:
        size, used, free = usage.total, usage.used, usage.free
    return {
        "device": _printable(partition.device),
        "mountpoint": _printable(partition.mountpoint),
        "filesystem": partition.fstype,
        "read_only": "ro" in partition.opts.split(","),
        "size": size,
        "used": used,
        "free": free,
    }


def _printable(path: str) -> str:
    """Replace what is not UTF-8 with replacement characters, because JSON cannot contain it."""
    return os.fsencode(path).decode("utf-8", "replace")
