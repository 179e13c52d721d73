"""A snapshot of this machine outside the lab's namespaces, which the lab must leave unchanged."""

from __future__ import annotations

import json
import subprocess
from contextlib import suppress
from pathlib import Path
from typing import Any

from lab.network import ENV_WITHOUT_SANITIZER

_FOLDERS = (
    *map(Path, "/etc/frr /etc/netns /run/frr /run/netns /var/log/frr".split()),
    Path("/var/tmp", "frr"),
)
_TABLES = (
    "-d link",
    "address",
    "-4 route show table all",
    "-6 route show table all",
    "-4 rule",
    "-6 rule",
)
# Lifetimes count down by themselves.
_LIFETIMES = {"valid_life_time", "preferred_life_time", "expires"}
# The number of current connections, not a setting.
_COUNTERS = {"nf_conntrack_count"}


def snapshot() -> dict[str, Any]:
    """Return links, addresses, routes, rules, network settings, mounts and the daemons' files."""
    return {
        **{table: _without_lifetimes(_ip(table)) for table in _TABLES},
        "settings": _settings(),
        "mounts": sorted(Path("/proc/self/mountinfo").read_text().splitlines()),
        "files": [_file(path) for folder in _FOLDERS for path in [folder, *folder.rglob("*")]],
    }


def remaining_processes(namespaces: set[str]) -> str | None:
    """Return the processes in one of the network namespaces as one line, or None."""
    processes = []
    for process in Path("/proc").glob("[0-9]*"):
        with suppress(OSError):  # it has ended
            if str((process / "ns" / "net").readlink()) in namespaces:
                processes.append(f"{process.name} {(process / 'comm').read_text().strip()}")
    return ", ".join(processes) or None


def _ip(table: str) -> Any:
    command = ["ip", "-j", *table.split()]
    done = subprocess.run(
        command, env=ENV_WITHOUT_SANITIZER, capture_output=True, text=True, check=True
    )
    return json.loads(done.stdout or "[]")


def _without_lifetimes(value: Any) -> Any:
    if isinstance(value, dict):
        return {key: _without_lifetimes(value[key]) for key in value if key not in _LIFETIMES}
    return [_without_lifetimes(item) for item in value] if isinstance(value, list) else value


def _settings() -> dict[str, str]:
    settings = {}
    for path in Path("/proc/sys/net").rglob("*"):
        if path.is_file() and path.name not in _COUNTERS:
            try:
                settings[str(path)] = path.read_text()
            except OSError as error:
                settings[str(path)] = str(error.strerror)  # a write-only setting
    return settings


def _file(path: Path) -> tuple[str, int, int] | tuple[str]:
    try:
        status = path.lstat()
    except OSError:
        return (str(path),)
    return str(path), status.st_size, status.st_mtime_ns
