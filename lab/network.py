"""Builds the lab's network and takes it down: a node is a set of namespaces without a name.

Each node has a network, a mount and a process namespace of its own, held by one process that waits
for the end of its standard input. That input is a pipe of this process: however this process ends,
the pipe closes, the holder leaves, and the kernel ends every process of the node and gives its
links, routes and mounts back. Nothing has to be found and removed later, and nothing is ever
visible outside: the wires are made inside, configuration, sockets and logs are kept in memory.
"""

from __future__ import annotations

import json
import os
import shutil
import subprocess
import time
from collections.abc import Callable
from pathlib import Path
from types import TracebackType
from typing import Any

import psutil

from lab import topology
from lab.node_agent import Inside
from lab.topology import Port, Wire

ROOT = Path(__file__).resolve().parent.parent
SECONDS = 30.0  # for one command, and for a change to show

_TOOLS = {
    "unshare": "util-linux",
    "nsenter": "util-linux",
    "ip": "iproute2",
    "vtysh": "frr",
    "/usr/lib/frr/zebra": "frr",
    "/usr/lib/frr/staticd": "frr",
    "/usr/lib/frr/bfdd": "frr",
}
# The daemons and the system's tools go without the sanitizers' runtime, which would judge them too.
ALONE = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
_NAMESPACES = ("--net", "--mount", "--pid")
_FORKED = ("--fork", "--mount-proc")  # a process namespace begins with a child

# The view of /sys goes with the namespace that mounted it. What the daemons and their shell write
# lies in memory of the node alone.
_HOLDER = """
mount -t sysfs none /sys
for folder in /run /etc/frr /var/log/frr /var/tmp; do
    mount -t tmpfs -o mode=755 none $folder
done
mkdir /run/frr
chown frr:frr /run/frr /etc/frr /var/log/frr
echo ready
exec cat
"""


class LabError(RuntimeError):
    """The lab itself failed: a command in a node, or something that did not come about in time."""


def why_not() -> str | None:
    """Why there can be no lab here, in one line, or None."""
    if os.geteuid() != 0:
        return "the lab needs root, for network namespaces"
    for tool, package in _TOOLS.items():
        if shutil.which(tool) is None:
            return f"the lab needs {tool}, of Debian's package {package}"
    tried = subprocess.run(
        ["unshare", *_NAMESPACES, *_FORKED, "ip", "link", "add", "type", "veth"],
        env=ALONE,
        capture_output=True,
        text=True,
        check=False,
    )
    return f"no namespaces here: {tried.stderr.strip()}" if tried.returncode else None


def wait_until(missing: Callable[[], str | None], seconds: float = SECONDS) -> None:
    """Returns once `missing()` says None. `LabError` with what it says if that takes too long."""
    deadline = time.monotonic() + seconds
    while lacking := missing():
        if time.monotonic() > deadline:
            raise LabError(f"not within {seconds:.0f} s: {lacking}")
        time.sleep(0.1)


class Node:
    """A node: run a tool in it, or call the module in it. `peers` are all nodes by their names."""

    def __init__(self, name: str, peers: dict[str, Node]) -> None:
        self.name = name
        self.peers = peers
        self._holder = subprocess.Popen(
            ["unshare", *_NAMESPACES, *_FORKED, "--kill-child", "sh", "-ec", _HOLDER],
            env=ALONE,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,  # an interrupt from the keyboard is for the lab to handle
        )
        self._inside: Inside | None = None
        assert self._holder.stdout is not None
        if self._holder.stdout.readline() != "ready\n":
            raise LabError(f"{name}: no node: {self._holder.communicate(timeout=SECONDS)[1]}")
        (child,) = psutil.Process(self._holder.pid).children()
        self.pid = child.pid

    @property
    def enter(self) -> list[str]:
        """The beginning of a command that runs in the node, in the project's folder."""
        return ["nsenter", "-t", str(self.pid), "-n", "-m", "-p", f"--wdns={ROOT}"]

    @property
    def namespace(self) -> str:
        """What tells the node's network namespace from all others."""
        return str(Path(f"/proc/{self.pid}/ns/net").readlink())

    def run(self, *command: str, given: str = "") -> str:
        """What a command in the node prints. `LabError`: it failed."""
        done = subprocess.run(
            [*self.enter, *command],
            env=ALONE,
            input=given,
            capture_output=True,
            text=True,
            timeout=SECONDS,
            check=False,
        )
        if done.returncode:
            said = (done.stderr or done.stdout).strip()
            raise LabError(f"{self.name}: {' '.join(command)}: {said}")
        return done.stdout

    def json(self, *command: str) -> Any:
        """The JSON that a command in the node prints; a tool with nothing to say prints nothing."""
        return json.loads(self.run(*command) or "[]")

    @property
    def inside(self) -> Inside:
        """The module in the node: one process for the node's life, as on an appliance."""
        if self._inside is None:
            self._inside = Inside(self.enter)
        return self._inside

    def close(self) -> None:
        """Ends the node and all that runs in it."""
        if self._inside is not None:
            self._inside.close()
        for pipe in (self._holder.stdin, self._holder.stdout, self._holder.stderr):
            if pipe is not None:
                pipe.close()
        self._holder.wait(SECONDS)


class Network:
    """The nodes of the topology, wired, with their addresses, neighbours and kernel routes."""

    def __init__(self) -> None:
        self.nodes: dict[str, Node] = {}
        try:
            for name in topology.NODES:
                self.nodes[name] = Node(name, self.nodes)
            self._build()
        except BaseException:
            self.close()
            raise

    def __enter__(self) -> Network:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        self.close()

    def close(self) -> None:
        """Ends every node."""
        while self.nodes:
            self.nodes.popitem()[1].close()

    def cut(self, wire: Wire) -> None:
        """Takes the first end down; the other loses its carrier."""
        self._set(wire[0], "down")

    def mend(self, wire: Wire) -> None:
        """Takes the first end up again."""
        self._set(wire[0], "up")

    def _set(self, port: Port, state: str) -> None:
        self.nodes[port.node].run("ip", "link", "set", port.name, state)

    def _build(self) -> None:
        for name, node in self.nodes.items():
            _sysctls(node, topology.SYSCTLS)
            loopbacks = [f"address add {address} dev lo" for address in topology.LOOPBACKS[name]]
            _ip(node, "link set lo up", *loopbacks)
        for one, other in topology.WIRES:
            self._wire(one, other)
        for port in (port for wire in topology.WIRES for port in wire):
            _sysctls(self.nodes[port.node], topology.PORT_SYSCTLS, port.name)
            _ip(
                self.nodes[port.node],
                f"link set {port.name} up",
                f"address add {port.ipv4} dev {port.name}",
                f"address add {port.ipv6} dev {port.name}",
            )
        for name, node in self.nodes.items():
            _ip(node, *(f"route add {route}" for route in topology.KERNEL_ROUTES[name]))

    def _wire(self, one: Port, other: Port) -> None:
        near, far = self.nodes[one.node], self.nodes[other.node]
        # Not by way of the process namespace: the far node's process has another number in there.
        enter = ["nsenter", "-t", str(near.pid), "-n"]
        peer = ["peer", "name", other.name, "netns", str(far.pid)]
        wire = ["ip", "link", "add", one.name, "type", "veth", *peer]
        subprocess.run([*enter, *wire], env=ALONE, check=True)

    def add_neighbors(self) -> None:
        """The neighbour entries of the topology. For when the real ones are there: a look-up that
        nobody answers is made to last, and so would theirs."""
        for row in topology.NEIGHBORS:
            node = self.nodes[row.node]
            if row.state == "incomplete":
                _sysctls(node, topology.INCOMPLETE_SYSCTLS, row.port)
            mac = f"lladdr {row.mac} " if row.mac else ""
            _ip(node, f"neigh replace {row.address} {mac}dev {row.port} nud {row.state}")


def _sysctls(node: Node, settings: dict[str, int], port: str = "") -> None:
    lines = [f"echo {value} > /proc/sys/{key.format(port)}" for key, value in settings.items()]
    node.run("sh", "-e", given="\n".join(lines))


def _ip(node: Node, *lines: str) -> None:
    node.run("ip", "-batch", "-", given="".join(f"{line}\n" for line in lines))
