"""Network namespaces for tests of kernel tables, with the tool `ip` as the oracle, and netlink
messages without a kernel.

The commands of `setup` create the namespace's links, addresses, neighbors and routes; then `source`
runs there, can import the project's packages, and prints JSON. This needs root, `ip` and `unshare`;
without them the test is skipped with the reason.
"""

from __future__ import annotations

import json
import os
import shutil
import subprocess
import sys
from functools import cache
from pathlib import Path
from typing import Any

import pytest

ROOT = Path(__file__).resolve().parents[2]
SECONDS = 60

# Two ports joined back to back, the first with an address.
PORTS = (
    "ip link set lo up",
    "ip link add port1 type veth peer name port2",
    "ip address add 198.51.100.1/24 dev port1",
    "ip link set port1 up",
    "ip link set port2 up",
)


needs_ip = pytest.mark.skipif(shutil.which("ip") is None, reason="the tool ip is the oracle")
# Without the sanitizers' runtime, which reports errors of the tool itself.
ENV_WITHOUT_SANITIZER = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}


def ip_json(*arguments: str) -> Any:
    """Return the output of `ip -j`."""
    done = subprocess.run(
        ["ip", "-j", *arguments],
        env=ENV_WITHOUT_SANITIZER,
        capture_output=True,
        check=True,
        text=True,
    )
    return json.loads(done.stdout or "[]")


class Message(dict):
    """A netlink message: header fields, and attributes through `get_attr`."""

    def __init__(self, fields: dict[str, Any], attributes: dict[str, Any]) -> None:
        super().__init__(fields)
        self._attributes = attributes

    def get_attr(self, name: str) -> Any:
        return self._attributes.get(name)


def run_in_netns(setup: tuple[str, ...], source: str) -> Any:
    """Run `source` after `setup` and return the JSON that it prints; a failure fails the test."""
    reason = _skip_reason()
    if reason:
        pytest.skip(reason)
    done = _run_unshared("\n".join((*setup, 'exec "$0" -c "$1"')), sys.executable, source)
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


@cache
def _skip_reason() -> str | None:
    for tool in ("unshare", "ip"):
        if shutil.which(tool) is None:
            return f"a namespace of its own needs the tool {tool}"
    tried = _run_unshared("\n".join(PORTS))
    return f"no network namespace: {tried.stderr.strip()}" if tried.returncode else None


def _run_unshared(script: str, *arguments: str) -> subprocess.CompletedProcess[str]:
    # The view of /sys goes with the namespace that mounted it.
    script = f"mount -t sysfs none /sys\n{script}"
    return subprocess.run(
        ["unshare", "--net", "--mount", "sh", "-ec", script, *arguments],
        cwd=ROOT,
        env={**os.environ, "PYTHONPATH": str(ROOT)},
        capture_output=True,
        text=True,
        timeout=SECONDS,
        check=False,
    )
