"""Fixtures: a session, clients of its application, and consoles as processes."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import sys
from collections.abc import Callable, Iterator
from contextlib import AbstractContextManager, contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Any
from urllib.parse import quote

import pytest
from webtest import TestApp

from tests.support.console import SCENARIO
from veldarin_simulator import Simulator
from veldarin_simulator.console.app import create_application
from veldarin_simulator.console.scenario_store import ScenarioStore
from veldarin_simulator.console.session import Session

TIMEOUT = 60


@pytest.fixture
def initial(tmp_path: Path) -> Path:
    """The directory of the scenario that the console starts with."""
    SCENARIO.save(tmp_path / "initial")
    return tmp_path / "initial"


@pytest.fixture
def session(
    build: None, initial: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> Iterator[Session]:
    """A session on `initial`; its store is `tmp_path / "store"`."""
    monkeypatch.setenv("VELDARIN_SIMULATOR_STATE", str(tmp_path / "state"))
    monkeypatch.setattr(shutil, "which", lambda name: None)  # no routing daemon's shell
    with Session(ScenarioStore(tmp_path / "store", initial)) as session:
        with session.simulator() as simulator:
            # A command without sessions returns the process's shared dictionary.
            shared = simulator.module.get_bfd_neighbor("get system arp")
        shared.clear()
        yield session
        shared.clear()


@pytest.fixture
def simulator(session: Session) -> Simulator:
    """The session's simulator, for scripting it between requests."""
    with session.simulator() as simulator:
        return simulator


@pytest.fixture
def client(session: Session) -> TestApp:
    """A client on this machine."""
    return TestApp(create_application(session), extra_environ={"HTTP_HOST": "localhost:8430"})


@pytest.fixture
def api(client: TestApp) -> Callable[..., Any]:
    """Sends a request, checks the status of the response, and returns its JSON."""

    def api(method: str, path: str, body: Any = None, status: int = 200) -> Any:
        send = getattr(client, method.lower() if body is None else f"{method.lower()}_json")
        arguments = () if body is None else (body,)
        response = send(quote(path), *arguments, status=status)
        kind = "application/json" if status == 200 else "application/problem+json"
        assert response.content_type == kind
        return response.json

    return api


@dataclass(frozen=True)
class ServerProcess:
    """A running console and the address that it prints."""

    process: subprocess.Popen[str]
    host: str
    port: int
    token: str | None = None

    @property
    def url(self) -> str:
        """The address of the page."""
        return f"http://{self.host}:{self.port}/"


StartServer = Callable[..., AbstractContextManager[ServerProcess]]


@pytest.fixture(scope="session")
def server_process(build: None, pytestconfig: pytest.Config) -> StartServer:
    """Starts a console: (directory for its state and temporary files, options)."""

    @contextmanager
    def server_process(directory: Path, *options: str) -> Iterator[ServerProcess]:
        temporary = directory / "temporary"
        temporary.mkdir(exist_ok=True)
        state = {"VELDARIN_SIMULATOR_STATE": str(directory / "state"), "TMPDIR": str(temporary)}
        with subprocess.Popen(
            [sys.executable, "-m", "veldarin_simulator", "console", "--port", "0", *options],
            cwd=pytestconfig.rootpath,
            env={**os.environ, **state},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        ) as process:
            try:
                assert process.stdout is not None
                line = process.stdout.readline()
                match = re.fullmatch(r"console: http://(.+):(\d+)/(?:\?token=(.+))?\n", line)
                assert match, line or process.communicate(timeout=TIMEOUT)[1]
                yield ServerProcess(process, match[1].strip("[]"), int(match[2]), match[3])
            finally:
                process.kill()

    return server_process


@pytest.fixture(scope="module")
def server(
    server_process: StartServer, tmp_path_factory: pytest.TempPathFactory
) -> Iterator[ServerProcess]:
    """A console that tests do not edit."""
    with server_process(tmp_path_factory.mktemp("console")) as server:
        yield server
