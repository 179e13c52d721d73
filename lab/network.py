"""Builds the lab's network from nodes, each a set of anonymous namespaces.

A node has its own network, mount and process namespace, held by one init process that waits for the
end of its standard input, a pipe from this process. However this process ends, the pipe closes, the
init process exits, and the kernel ends every process of the node and removes its links, routes and
mounts. Nothing is visible outside the node: links are created inside, and configuration, sockets
and logs are on tmpfs.
"""

from __future__ import annotations

import json
import os
import shutil
import subprocess
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any, TypeVar

import psutil

from lab import topology
from lab.node_agent import NodeAgent
from lab.topology import Link, Port
from veldarin_simulator.native_library import ROOT

Self = TypeVar("Self", bound="Network")

TIMEOUT = 30.0  # seconds, for one command and for a change to take effect

_TOOLS = {
    "unshare": "util-linux",
    "nsenter": "util-linux",
    "ip": "iproute2",
    "vtysh": "frr",
    "/usr/lib/frr/zebra": "frr",
    "/usr/lib/frr/staticd": "frr",
    "/usr/lib/frr/bfdd": "frr",
}
# The sanitizers' runtime is for the module, not for the daemons and the system's tools.
ENV_WITHOUT_SANITIZER = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
# --fork, because only a child process of unshare enters the new process namespace.
_UNSHARE = ("unshare", "--net", "--mount", "--pid", "--fork", "--mount-proc")

# Mounts /sys again because it shows the network namespace that mounted it.
NODE_INIT = """
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
    """The lab itself failed: a command in a node, or a change that timed out."""


def skip_reason() -> str | None:
    """Return why the lab cannot run here, in one line, or None."""
    if os.geteuid() != 0:
        return "the lab needs root, for network namespaces"
    for tool, package in _TOOLS.items():
        if shutil.which(tool) is None:
            return f"the lab needs {tool}, from Debian's package {package}"
    done = subprocess.run(
        [*_UNSHARE, "ip", "link", "add", "type", "veth"],
        env=ENV_WITHOUT_SANITIZER,
        capture_output=True,
        text=True,
        check=False,
    )
    return f"cannot create namespaces: {done.stderr.strip()}" if done.returncode else None


def wait_until(find_problem: Callable[[], str | None], timeout: float = TIMEOUT) -> None:
    """Wait until `find_problem()` returns None.

    Raises:
        LabError: The timeout has expired; the message has the last problem.
    """
    deadline = time.monotonic() + timeout
    while problem := find_problem():
        if time.monotonic() > deadline:
            raise LabError(f"not within {timeout:.0f} s: {problem}")
        time.sleep(0.5)


class Node:
    """A node, in which tools and the module run; `peers` has all nodes by name, itself included."""

    def __init__(self, name: str, peers: dict[str, Node]) -> None:
        self.name = name
        self.peers = peers
        self._init = subprocess.Popen(
            [*_UNSHARE, "--kill-child", "sh", "-ec", NODE_INIT],
            env=ENV_WITHOUT_SANITIZER,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,  # the lab handles Ctrl-C
        )
        self._agent: NodeAgent | None = None
        assert self._init.stdout is not None
        if self._init.stdout.readline() != "ready\n":
            errors = self._init.communicate(timeout=TIMEOUT)[1]
            raise LabError(f"{name}: the node did not start: {errors}")
        (child,) = psutil.Process(self._init.pid).children()
        self.pid = child.pid

    @property
    def command_prefix(self) -> list[str]:
        """The prefix of a command that runs in the node, in the project's folder."""
        return ["nsenter", "-t", str(self.pid), "-n", "-m", "-p", f"--wdns={ROOT}"]

    @property
    def namespace(self) -> str:
        """The identity of the node's network namespace."""
        return str(Path(f"/proc/{self.pid}/ns/net").readlink())

    @property
    def agent(self) -> NodeAgent:
        """The process in which the module runs in the node, one for its life as on an appliance."""
        if self._agent is None:
            self._agent = NodeAgent(self.command_prefix)
        return self._agent

    def run(self, *command: str, stdin: str = "") -> str:
        """Return the output of a command in the node.

        Raises:
            LabError: The command failed.
        """
        done = subprocess.run(
            [*self.command_prefix, *command],
            env=ENV_WITHOUT_SANITIZER,
            input=stdin,
            capture_output=True,
            text=True,
            timeout=TIMEOUT,
            check=False,
        )
        if done.returncode:
            message = (done.stderr or done.stdout).strip()
            raise LabError(f"{self.name}: {' '.join(command)}: {message}")
        return done.stdout

    def json(self, *command: str) -> Any:
        """Return the JSON output of a command in the node, an empty list for no output."""
        return json.loads(self.run(*command) or "[]")

    def ip(self, *lines: str) -> None:
        """Run `ip` commands in the node."""
        self.run("ip", "-batch", "-", stdin="".join(f"{line}\n" for line in lines))

    def set_sysctls(self, settings: dict[str, int], port: str = "") -> None:
        """Set kernel parameters in the node; `port` replaces a `{}` in their names."""
        lines = [f"echo {value} > /proc/sys/{key.format(port)}" for key, value in settings.items()]
        self.run("sh", "-e", stdin="\n".join(lines))

    def close(self) -> None:
        """End the node and all its processes."""
        if self._agent is not None:
            self._agent.close()
        for pipe in (self._init.stdin, self._init.stdout, self._init.stderr):
            if pipe is not None:
                pipe.close()
        self._init.wait(TIMEOUT)


class Network:
    """The nodes of the topology with their links, addresses and kernel routes."""

    def __init__(self) -> None:
        self.nodes: dict[str, Node] = {}
        try:
            for name in topology.NODES:
                self.nodes[name] = Node(name, self.nodes)
            self.start()
        except BaseException:
            self.close()
            raise

    def __enter__(self: Self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """End every node."""
        while self.nodes:
            self.nodes.popitem()[1].close()

    def set_link(self, link: Link, state: str) -> None:
        """Set the first end "up" or "down"; "down" takes the carrier from the other end."""
        self.nodes[link[0].node].ip(f"link set {link[0].name} {state}")

    def add_neighbors(self) -> None:
        """Add the neighbor entries of the topology.

        Call it only after the network has converged: the settings that keep an incomplete entry
        also delay the real lookups on its port.
        """
        for row in topology.NEIGHBORS:
            node = self.nodes[row.node]
            if row.state == "incomplete":
                node.set_sysctls(topology.INCOMPLETE_SYSCTLS, row.port)
            mac = f"lladdr {row.mac} " if row.mac else ""
            node.ip(f"neigh replace {row.address} {mac}dev {row.port} nud {row.state}")

    def start(self) -> None:
        """Configure the nodes and connect them."""
        for name, node in self.nodes.items():
            node.set_sysctls(topology.SYSCTLS)
            loopbacks = [f"address add {address} dev lo" for address in topology.LOOPBACKS[name]]
            node.ip("link set lo up", *loopbacks)
        for link in topology.LINKS:
            self._connect(*link)
            for port in link:
                node = self.nodes[port.node]
                node.set_sysctls(topology.PORT_SYSCTLS, port.name)
                node.ip(
                    f"link set {port.name} up",
                    f"address add {port.ipv4} dev {port.name}",
                    f"address add {port.ipv6} dev {port.name}",
                )
        for name, node in self.nodes.items():
            node.ip(*(f"route add {route}" for route in topology.KERNEL_ROUTES[name]))

    def _connect(self, one: Port, other: Port) -> None:
        near, far = self.nodes[one.node], self.nodes[other.node]
        # Not in the process namespace of `near`, where `far.pid` is not the ID of `far`.
        enter = ["nsenter", "-t", str(near.pid), "-n"]
        peer = ["peer", "name", other.name, "netns", str(far.pid)]
        add = ["ip", "link", "add", one.name, "type", "veth", *peer]
        subprocess.run([*enter, *add], env=ENV_WITHOUT_SANITIZER, check=True)
