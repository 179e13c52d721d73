"""However the lab ends, no process remains and this machine is unchanged."""

from __future__ import annotations

import os
import re
import signal
import subprocess
import sys
from functools import partial
from pathlib import Path

import pytest

from lab import host_snapshot
from lab.network import Network, wait_until
from veldarin_simulator.native_library import ROOT

ENDINGS = {
    "Enter": None,
    "Ctrl-C": signal.SIGINT,
    "SIGTERM": signal.SIGTERM,
    "SIGKILL": signal.SIGKILL,
}


@pytest.mark.usefixtures("require_lab")
def test_lab_ended_in_any_way_leaves_no_trace() -> None:
    before = host_snapshot.snapshot()
    labs = {ending: start_lab() for ending in ENDINGS}
    namespaces = {ending: namespaces_of(lab) for ending, lab in labs.items()}
    assert len(set().union(*namespaces.values())) == 3 * len(labs)
    for ending, lab in labs.items():
        remaining = host_snapshot.remaining_processes(namespaces[ending]) or ""
        assert remaining.count(", ") > 8, "an init process and three daemons per node"
        end(lab, ENDINGS[ending])
        wait_until(partial(host_snapshot.remaining_processes, namespaces[ending]))
        lab.wait(60)
    assert host_snapshot.snapshot() == before


@pytest.mark.usefixtures("require_lab")
def test_network_after_an_exception_leaves_no_trace() -> None:
    before = host_snapshot.snapshot()
    with pytest.raises(ZeroDivisionError), Network() as network:
        namespaces = {node.namespace for node in network.nodes.values()}
        assert host_snapshot.remaining_processes(namespaces)
        _ = 1 // 0
    wait_until(partial(host_snapshot.remaining_processes, namespaces))
    assert host_snapshot.snapshot() == before


def start_lab() -> subprocess.Popen[str]:
    return subprocess.Popen(
        [sys.executable, "-m", "lab", "--stay"],
        cwd=ROOT,
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        text=True,
        start_new_session=True,
    )


def namespaces_of(lab: subprocess.Popen[str]) -> set[str]:
    """Wait until the lab is up and return the network namespaces of its nodes."""
    assert lab.stdout is not None
    line = lab.stdout.readline()
    assert line.startswith("The network is up: "), line
    pids = re.findall(r"\w+ (\d+)", line)
    return {str(Path(f"/proc/{pid}/ns/net").readlink()) for pid in pids}


def end(lab: subprocess.Popen[str], by: signal.Signals | None) -> None:
    if by is None:
        lab.communicate("\n", timeout=60)
    elif by is signal.SIGINT:
        os.killpg(lab.pid, by)  # as a terminal does: the whole foreground group gets it
    else:
        lab.send_signal(by)
