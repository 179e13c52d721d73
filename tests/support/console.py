"""The console under test: a bench on a scenario of the test's own, its application, its process."""

from __future__ import annotations

import importlib
import os
import re
import subprocess
import sys
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest
from webtest import TestApp

from tests.support import isolated
from veldarin_simulator.console.app import application
from veldarin_simulator.console.scenario_store import Shelf
from veldarin_simulator.console.session import Bench
from veldarin_simulator.providers import bfd
from veldarin_simulator.simulator import MODULE

SECONDS = 60  # far beyond anything here; a hang must end somewhere

ARP = (
    "Address          Age(min)   Hardware address    Interface\n"
    "192.0.2.10       0          02:00:00:aa:bb:cc   port1\n"
)
ROUTING = (
    "Routing entry for 192.0.2.0/24\n"
    "  Known via static, distance 10, metric 0, best\n"
    "  Last update 01:02:03 ago\n"
    "  * 198.51.100.1, via port1\n"
)


def scenario(folder: Path) -> Path:
    """A scenario whose answers depend on no machine."""
    (folder / "cli").mkdir(parents=True)
    (folder / "cli" / "get system arp.txt").write_text(ARP)
    (folder / "cli" / "get router info routing-table detail {}.txt").write_text(ROUTING)
    (folder / "aps_get_new_cookie_id.json").write_text("4294967295")
    (folder / "build_switch_port_statistics.json").write_text(
        '[{"port_name": "port1", "errin": 3}]'
    )
    (folder / "build_system_interface_physical.json").write_text(
        '[{"interface": [{"name": "port1", "mtu": 1500}]}]'
    )
    return folder


@contextmanager
def opened(folder: Path, monkeypatch: pytest.MonkeyPatch) -> Iterator[Bench]:
    """A bench that was given the scenario `folder / "given"`, its shelf beside it."""
    monkeypatch.setenv("VELDARIN_SIMULATOR_STATE", str(folder / "state"))
    monkeypatch.setattr(bfd, "_vtysh", lambda command: None)
    with Bench(Shelf(folder / "shelf", scenario(folder / "given"))) as bench:
        module = importlib.import_module(MODULE)
        # The dictionary that calls without one of their own share is the process's, and outlives
        # the test: a command that prints no session gives the dictionary itself.
        shared = module.get_bfd_neighbor("get system arp")
        shared.clear()
        yield bench
        shared.clear()


def client(bench: Bench) -> TestApp:
    """A client of the bench's application, as a program on this machine is one."""
    return TestApp(application(bench), extra_environ={"HTTP_HOST": "localhost:8430"})


@contextmanager
def running(folder: Path, *options: str) -> Iterator[tuple[subprocess.Popen[str], str, int]]:
    """A running console: its process, and the host and port that it says it is at."""
    temporary = folder / "temporary"
    temporary.mkdir(exist_ok=True)
    with subprocess.Popen(
        [sys.executable, "-m", "veldarin_simulator", "console", "--port", "0", *options],
        cwd=isolated.ROOT,
        env={
            **os.environ,
            "VELDARIN_SIMULATOR_STATE": str(folder / "state"),
            "TMPDIR": str(temporary),
        },
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    ) as process:
        try:
            assert process.stdout is not None
            line = process.stdout.readline()
            found = re.fullmatch(r"console: http://(.+):(\d+)/\n", line)
            assert found, line + (process.communicate(timeout=SECONDS)[1] if not line else "")
            yield process, found[1], int(found[2])
        finally:
            process.kill()
