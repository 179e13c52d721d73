"""This machine outside the lab's namespaces, as the lab has to leave it.

What is looked at is what a network lab could touch: links, addresses, routes and rules, the
kernel's network settings, mounts, the routing daemons' folders and those of named namespaces.
"""

from __future__ import annotations

import json
import subprocess
from pathlib import Path
from typing import Any

from lab.network import ALONE

_SETTINGS = Path("/proc/sys/net")
_FOLDERS = (
    Path("/etc", "frr"),
    Path("/etc", "netns"),
    Path("/run", "frr"),
    Path("/run", "netns"),
    Path("/var", "log", "frr"),
    Path("/var", "tmp", "frr"),
)
_TABLES = {
    "links": ("-d", "link"),
    "addresses": ("address",),
    "IPv4 routes": ("-4", "route", "show", "table", "all"),
    "IPv6 routes": ("-6", "route", "show", "table", "all"),
    "IPv4 rules": ("-4", "rule"),
    "IPv6 rules": ("-6", "rule"),
}
# These pass by themselves, of addresses and routes that a router or a server lends.
_TIMES = {"valid_life_time", "preferred_life_time", "expires"}
# A counter of the present connections, not a setting.
_COUNTERS = {"nf_conntrack_count"}


def state() -> dict[str, Any]:
    """Everything that is looked at, to be compared with what it is later."""
    tables = {name: _without_times(_ip(*words)) for name, words in _TABLES.items()}
    return {
        **tables,
        "settings": _settings(),
        "mounts": sorted(Path("/proc/self/mountinfo").read_text().splitlines()),
        "files": [_file(path) for folder in _FOLDERS for path in [folder, *folder.rglob("*")]],
    }


def inhabitants(namespaces: set[str]) -> list[str]:
    """The processes of this machine that are in one of the network namespaces."""
    found = []
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if str((process / "ns" / "net").readlink()) in namespaces:
                found.append(f"{process.name} {(process / 'comm').read_text().strip()}")
        except OSError:
            continue  # it has ended
    return found


def left(namespaces: set[str]) -> str | None:
    """Who is still there, in one line, or None."""
    return ", ".join(inhabitants(namespaces)) or None


def _ip(*words: str) -> Any:
    done = subprocess.run(
        ["ip", "-j", *words], env=ALONE, capture_output=True, text=True, check=True
    )
    return json.loads(done.stdout or "[]")


def _without_times(told: Any) -> Any:
    if isinstance(told, dict):
        return {key: _without_times(told[key]) for key in told if key not in _TIMES}
    return [_without_times(item) for item in told] if isinstance(told, list) else told


def _settings() -> dict[str, str]:
    read = {}
    for path in _SETTINGS.rglob("*"):
        if path.is_file() and path.name not in _COUNTERS:
            try:
                read[str(path)] = path.read_text()
            except OSError as error:
                read[str(path)] = str(error.strerror)  # some can only be written
    return read


def _file(path: Path) -> tuple[str, int, int] | tuple[str]:
    try:
        status = path.lstat()
    except OSError:
        return (str(path),)
    return str(path), status.st_size, status.st_mtime_ns
