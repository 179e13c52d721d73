"""However the lab ends, nothing of it is left, and this machine is as it was."""

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
from lab.network import ROOT, Network, wait_until

ENDINGS = {
    "Enter": None,
    "Ctrl-C": signal.SIGINT,
    "SIGTERM": signal.SIGTERM,
    "SIGKILL": signal.SIGKILL,
}


@pytest.mark.usefixtures("possible")
def test_nothing_is_left_however_the_lab_ends() -> None:
    before = host_snapshot.state()
    labs = {ending: started() for ending in ENDINGS}
    namespaces = {ending: inhabited(lab) for ending, lab in labs.items()}
    assert len(set().union(*namespaces.values())) == 3 * len(labs)
    for ending, lab in labs.items():
        assert len(host_snapshot.inhabitants(namespaces[ending])) > 9, (
            "a holder and three daemons a node"
        )
        end(lab, ENDINGS[ending])
        wait_until(partial(host_snapshot.left, namespaces[ending]))
        lab.wait(20)
    assert host_snapshot.state() == before


@pytest.mark.usefixtures("possible")
def test_nothing_is_left_of_a_network_in_which_something_failed() -> None:
    before = host_snapshot.state()
    with pytest.raises(ZeroDivisionError), Network() as network:
        namespaces = {node.namespace for node in network.nodes.values()}
        assert host_snapshot.left(namespaces)
        _ = 1 // 0
    wait_until(partial(host_snapshot.left, namespaces))
    assert host_snapshot.state() == before


def started() -> subprocess.Popen[str]:
    return subprocess.Popen(
        [sys.executable, "-m", "lab", "--stay"],
        cwd=ROOT,
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        text=True,
        start_new_session=True,
    )


def inhabited(lab: subprocess.Popen[str]) -> set[str]:
    """The network namespaces of a lab's nodes, once it says that it is up."""
    assert lab.stdout is not None
    line = lab.stdout.readline()
    assert line.startswith("The network is up: "), line
    pids = re.findall(r"\w+ (\d+)", line)
    return {str(Path(f"/proc/{pid}/ns/net").readlink()) for pid in pids}


def end(lab: subprocess.Popen[str], by: signal.Signals | None) -> None:
    if by is None:
        lab.communicate("\n", timeout=20)
    elif by is signal.SIGINT:
        os.killpg(lab.pid, by)  # as a terminal does: everyone in the foreground gets it
    else:
        lab.send_signal(by)
