"""The console as a process, through a socket."""

from __future__ import annotations

import json
import os
import re
import signal
import socket
import subprocess
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack
from http.client import HTTPConnection, HTTPException, HTTPResponse
from pathlib import Path
from typing import Any
from urllib.parse import urljoin

import psutil
import pytest

from veldarin_simulator.console import server as server_module
from veldarin_simulator.console.app import create_application
from veldarin_simulator.console.security import MAX_BODY_BYTES

STATIC = Path(server_module.__file__).parent / "static"
TIMEOUT = 60
# One on an idle machine; this one may run other tests.
SECONDS_TO_STOP = 30  # half of what the call under way would take
JSON = {"Content-Type": "application/json"}


def send(
    server: Any, method: str, path: str, body: Any = None, **headers: str
) -> tuple[HTTPResponse, bytes]:
    """Return the response and its body."""
    connection = HTTPConnection(server.host, server.port, timeout=TIMEOUT)
    try:
        connection.request(method, path, None if body is None else json.dumps(body), headers)
        response = connection.getresponse()
        return response, response.read()
    finally:
        connection.close()


def send_raw(server: Any, request: bytes) -> bytes:
    """Return everything that the server sends back."""
    with socket.create_connection((server.host, server.port), timeout=TIMEOUT) as connection:
        connection.sendall(request)
        connection.shutdown(socket.SHUT_WR)
        return b"".join(iter(lambda: connection.recv(65536), b""))


def call(server: Any, function: str, body: Any, **headers: str) -> Any:
    response, content = send(server, "POST", f"/api/functions/{function}", body, **JSON, **headers)
    assert response.status == 200
    return json.loads(content)


def run(root: Path, state: Path, *options: str) -> subprocess.CompletedProcess[str]:
    """Run a console that is expected to exit."""
    return subprocess.run(
        [sys.executable, "-m", "veldarin_simulator", "console", *options],
        cwd=root,
        env={**os.environ, "VELDARIN_SIMULATOR_STATE": str(state)},
        capture_output=True,
        text=True,
        timeout=TIMEOUT,
    )


@pytest.mark.requires("cryptography")
def test_bytes_survive_two_calls(server: Any) -> None:
    wrapped = call(server, "encrypt_cookie", {"arguments": [{"bytes": "user=admin; \\x00"}]})
    assert (wrapped["result"]["type"], wrapped["source"]) == ("bytes", "live")
    argument = {"bytes": wrapped["result"]["value"]}
    plain = call(server, "decrypt_cookie", {"arguments": [argument]})
    assert plain["result"]["value"] == "user=admin; "


@pytest.mark.requires("cryptography", "netlink")
def test_every_function_can_be_called_from_any_thread(server: Any) -> None:
    _, content = send(server, "GET", "/api/functions")
    for subsystem in json.loads(content)["subsystems"]:
        for function in subsystem["functions"]:
            result = call(server, function["name"], function["example_call"])
            assert "simulator_error" not in result, function["name"]


@pytest.mark.parametrize(
    ("path", "kind"),
    [
        ("/", "text/html"),
        ("/static/styles/base.css", "text/css"),
        ("/static/mark.svg", "image/svg"),
    ],
)
def test_page_is_served_with_its_content_type(server: Any, path: str, kind: str) -> None:
    response, content = send(server, "GET", path)
    assert response.status == 200
    assert str(response.getheader("Content-Type")).startswith(kind)
    assert content


def test_every_file_of_the_page_is_served(server: Any) -> None:
    page = send(server, "GET", "/")[1].decode()
    pending = set(re.findall(r'(?:src|href)="(/[^"#]*)"', page))
    seen: set[str] = set()
    while pending:
        path = pending.pop()
        seen.add(path)
        response, content = send(server, "GET", path)
        assert response.status == 200, path
        if path.endswith(".js"):
            # Browsers do not run a module of another type.
            assert "javascript" in str(response.getheader("Content-Type"))
            imported = re.findall(r'(?:from |import\()"(\..*?)"', content.decode())
            pending |= {urljoin(path, name) for name in imported} - seen
    served = {path.removeprefix("/static/") for path in seen if path.startswith("/static/")}
    files = {path.relative_to(STATIC).as_posix() for path in STATIC.rglob("*.*")}
    assert files - served == {"console.html"}


def test_foreign_host_is_rejected_on_the_wire(server: Any) -> None:
    for host in ("example.com", f"example.com:{server.port}", "192.0.2.1", ""):
        assert send(server, "GET", "/", Host=host)[0].status == 403
    assert send_raw(server, b"GET / HTTP/1.0\r\n\r\n").startswith(b"HTTP/1.0 403 ")


def test_foreign_origin_is_rejected_on_the_wire(server: Any) -> None:
    path, headers = "/api/functions/get_token", {"Origin": "http://example.com", **JSON}
    assert send(server, "POST", path, {}, **headers)[0].status == 403
    assert call(server, "get_token", {}, Origin=server.url.rstrip("/"))


@pytest.mark.parametrize(
    "body",
    [
        b"Content-Length: %d\r\n\r\n" % (MAX_BODY_BYTES + 1) + b" " * (MAX_BODY_BYTES + 1),
        b"Content-Length: %d\r\n\r\n" % (20 * MAX_BODY_BYTES),  # rejected before the body is sent
        b"Transfer-Encoding: chunked\r\n\r\n"
        + (b"800000\r\n" + b" " * 0x800000 + b"\r\n")
        + b"1\r\n \r\n"
        + b"0\r\n\r\n",
    ],
    ids=["large", "announced", "chunked"],
)
def test_large_body_is_one_problem_response(server: Any, body: bytes) -> None:
    head = f"POST /api/parse/arp HTTP/1.1\r\nHost: {server.host}\r\nConnection: close\r\n"
    kind = "Content-Type: application/json\r\n"
    response = send_raw(server, (head + kind).encode() + body)
    assert response.startswith(b"HTTP/1.1 413 ")
    assert json.loads(response.partition(b"\r\n\r\n")[2])["status"] == 413


@pytest.mark.parametrize(
    "request_",
    [
        b"nonsense\r\n\r\n",
        b"GET / HTTP/1.1\r\nHost : localhost\r\n\r\n",
        b"POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
    ],
    ids=["start line", "header", "length"],
)
def test_invalid_http_is_a_problem_response(server: Any, request_: bytes) -> None:
    head, _, body = send_raw(server, request_).partition(b"\r\n\r\n")
    assert re.match(rb"HTTP/1\.\d 4\d\d ", head)
    assert b"Content-Type: application/problem+json" in head
    assert json.loads(body)["detail"]


@pytest.mark.workstation_only("/proc/net/tcp has the byte order of the workstation's kernel")
def test_console_listens_on_loopback_only(server_process: Any, tmp_path: Path) -> None:
    with server_process(tmp_path) as server:
        connections = psutil.Process(server.process.pid).net_connections("inet")
        listening = [one.laddr for one in connections if one.status == psutil.CONN_LISTEN]
    assert listening == [("127.0.0.1", server.port)]
    assert server.host == "127.0.0.1"


@pytest.mark.parametrize("address", ["0.0.0.0", "::", "192.0.2.1"])
def test_remote_address_requires_the_option(
    pytestconfig: pytest.Config, tmp_path: Path, address: str
) -> None:
    done = run(pytestconfig.rootpath, tmp_path, "--port", "0", "--host", address)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.count("\n") == 1
    assert "add --allow-remote" in done.stderr


def test_remote_console_requires_the_printed_token(server_process: Any, tmp_path: Path) -> None:
    with server_process(tmp_path, "--host", "0.0.0.0", "--allow-remote") as server:
        assert server.host != "0.0.0.0"
        assert len(server.token) >= 32
        host = {"Host": f"192.0.2.1:{server.port}"}
        bearer = {"Authorization": f"Bearer {server.token}"}
        path = "/api/status"
        assert send(server, "GET", path, **host)[0].status == 401
        assert send(server, "GET", path, **host, **bearer)[0].status == 200
        assert send(server, "GET", path, Host="example.com", **bearer)[0].status == 403
        address = f"/?token={server.token}"
        assert send(server, "GET", address)[0].status == 303
        server.process.send_signal(signal.SIGINT)
        _, errors = server.process.communicate(timeout=TIMEOUT)
    lines = errors.splitlines()
    assert "warning: anyone with this address can make calls" in lines[0]
    pattern = rf"\S+ \S+ {re.escape(server.host)} GET (\S+) (\d+) \d+ ms"
    logged = [
        match and match.groups() for match in (re.fullmatch(pattern, one) for one in lines[1:])
    ]
    assert logged == [(path, "401"), (path, "200"), (path, "403"), ("/", "303")]
    assert server.token not in errors


@pytest.mark.parametrize(
    ("host", "allowed"),
    [("127.0.0.5", "127.0.0.5"), ("localhost", "localhost"), ("::1", "[::1]")],
)
def test_other_loopback_address_can_be_used(
    server_process: Any, tmp_path: Path, host: str, allowed: str
) -> None:
    if host == "::1" and not Path("/proc/net/if_inet6").read_text():
        pytest.skip("this machine has no IPv6")
    with server_process(tmp_path, "--host", host) as server:
        assert (server.host, server.token) == (host, None)
        response, _ = send(server, "GET", "/api/status")
        assert response.status == 200
        origin = {"Origin": f"http://{allowed}:{server.port}"}
        assert call(server, "switch_mclag_icl", {}, **origin)["source"] == "no call"


def test_host_that_is_not_an_address_is_rejected(
    pytestconfig: pytest.Config, tmp_path: Path
) -> None:
    done = run(pytestconfig.rootpath, tmp_path, "--host", "example.com")
    assert (done.returncode, done.stdout) == (2, "")
    assert "--host is an IP address or localhost, not example.com" in done.stderr


def test_half_open_requests_do_not_block_others(server_process: Any, tmp_path: Path) -> None:
    """The server had a limit of 100 connections and waited for each request for two minutes."""
    with server_process(tmp_path) as server, ExitStack() as connections:
        for _ in range(150):
            connection = socket.create_connection((server.host, server.port), timeout=TIMEOUT)
            connections.enter_context(connection)
            connection.sendall(b"POST /api/functions/get_token HTTP/1.1\r\nContent-Length: 9\r\n")
        # A request that waits for the others exceeds its time limit.
        assert send(server, "GET", "/api/status")[0].status == 200
        assert call(server, "switch_mclag_icl", {})["source"] == "no call"


def test_idle_connection_is_closed(session: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(server_module, "_MAX_IDLE_SECONDS", 1)
    listening = server_module.create(create_application(session), "127.0.0.1", 0)
    thread = threading.Thread(target=listening.run, daemon=True)
    thread.start()
    with socket.create_connection(("127.0.0.1", listening.effective_port), TIMEOUT) as connection:
        connection.sendall(b"GET / HTTP/1.1\r\n")
        assert connection.recv(1) == b""


SLOW_SHELL = """#!/bin/sh
if test -e "$0.slow"; then touch "$0.started"; exec sleep 60; fi
"""


@pytest.mark.parametrize("signal_", [signal.SIGTERM, signal.SIGINT])
def test_signal_ends_the_console_during_a_call(
    server_process: Any, tmp_path: Path, monkeypatch: pytest.MonkeyPatch, signal_: signal.Signals
) -> None:
    shell = tmp_path / "bin" / "vtysh"
    shell.parent.mkdir()
    shell.write_text(SLOW_SHELL)
    shell.chmod(0o755)
    shell.with_name("vtysh.slow").touch()
    monkeypatch.setenv("PATH", str(shell.parent), prepend=os.pathsep)
    with server_process(tmp_path) as server:
        address = (server.host, server.port)
        with socket.create_connection(address, TIMEOUT), socket.create_connection(address) as slow:
            slow.sendall(
                b"POST /api/functions/list_bfd_neighbor HTTP/1.1\r\nHost: localhost\r\n"
                b"Content-Type: application/json\r\nContent-Length: 2\r\n\r\n{}"
            )
            while not shell.with_name("vtysh.started").exists():
                time.sleep(0.01)
            running = json.loads(send(server, "GET", "/api/status")[1])["running"]
            assert running["function"] == "list_bfd_neighbor"
            started = time.monotonic()
            server.process.send_signal(signal_)
            server.process.wait(TIMEOUT)
            assert time.monotonic() - started < SECONDS_TO_STOP
    assert server.process.returncode == 0
    assert list((tmp_path / "temporary").iterdir()) == []


def test_signal_ends_the_console_while_it_parses(server_process: Any, tmp_path: Path) -> None:
    text = "Address\n" + "1 2 3 4\n" * 100_000 + "x"
    with server_process(tmp_path) as server, ThreadPoolExecutor() as threads:
        parsing = threads.submit(send, server, "POST", "/api/parse/arp", {"text": text}, **JSON)
        while not json.loads(send(server, "GET", "/api/status")[1])["running"]:
            assert not parsing.done()
        server.process.send_signal(signal.SIGINT)
        server.process.wait(TIMEOUT)
        assert server.process.returncode == 0
        with pytest.raises((OSError, HTTPException)):  # no response
            parsing.result()


@pytest.mark.parametrize("signal_", [signal.SIGTERM, signal.SIGINT])
def test_signal_stops_the_console_without_leftovers(
    server_process: Any, tmp_path: Path, signal_: signal.Signals
) -> None:
    with server_process(tmp_path) as server:
        call(server, "get_token", {})
        assert list((tmp_path / "temporary").iterdir())
        server.process.send_signal(signal_)
        _, errors = server.process.communicate(timeout=TIMEOUT)
        assert (server.process.returncode, errors) == (0, "")
    assert list((tmp_path / "temporary").iterdir()) == []


def test_port_in_use_is_reported(server: Any, pytestconfig: pytest.Config, tmp_path: Path) -> None:
    done = run(pytestconfig.rootpath, tmp_path, "--port", str(server.port))
    assert (done.returncode, done.stdout) == (1, "")
    problem = f"127.0.0.1 port {server.port}: address already in use (choose another with --port)\n"
    assert done.stderr.partition(": ")[2] == problem


@pytest.mark.skipif("LD_PRELOAD" in os.environ, reason="the sanitizer's own work would count")
@pytest.mark.workstation_only("times mean nothing under emulation")
def test_start_takes_less_than_a_second_of_cpu(server_process: Any, tmp_path: Path) -> None:
    with server_process(tmp_path) as server:
        times = psutil.Process(server.process.pid).cpu_times()
    assert times.user + times.system < 1
