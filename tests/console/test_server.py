"""The console as a process of its own, through a real socket."""

from __future__ import annotations

import json
import os
import re
import signal
import socket
import subprocess
import sys
from collections.abc import Iterator
from http.client import HTTPConnection, HTTPResponse
from pathlib import Path
from typing import Any

import psutil
import pytest

from tests.support import isolated
from tests.support.console import SECONDS, running
from veldarin_simulator.console import security

JSON = {"Content-Type": "application/json"}


@pytest.fixture(scope="module")
def served(build: None, tmp_path_factory: pytest.TempPathFactory) -> Iterator[tuple[str, int]]:
    """Where a console listens."""
    with running(tmp_path_factory.mktemp("console")) as (_, host, port):
        yield host, port


def asked(
    served: tuple[str, int], method: str, path: str, body: Any = None, **headers: str
) -> tuple[HTTPResponse, bytes]:
    """The answer and its body."""
    connection = HTTPConnection(*served, timeout=SECONDS)
    try:
        connection.request(method, path, body, headers)
        response = connection.getresponse()
        return response, response.read()
    finally:
        connection.close()


def exchanged(served: tuple[str, int], request: bytes) -> bytes:
    """All that comes back for these bytes."""
    with socket.create_connection(served, timeout=SECONDS) as connection:
        connection.sendall(request)
        connection.shutdown(socket.SHUT_WR)
        return b"".join(iter(lambda: connection.recv(65536), b""))


def error(answered: tuple[HTTPResponse, bytes]) -> dict[str, Any]:
    response, body = answered
    assert response.getheader("Content-Type") == "application/json"
    told: dict[str, Any] = json.loads(body)["error"]
    assert told["status"] == response.status
    return told


@pytest.mark.requires("cryptography")
def test_a_call_goes_through_the_socket(served: tuple[str, int]) -> None:
    body = json.dumps({"arguments": [{"bytes": "user=admin; \\x00"}]})
    path = "/api/functions/encrypt_cookie"
    response, content = asked(served, "POST", path, body, **JSON)
    assert response.status == 200
    called = json.loads(content)
    assert (called["result"]["type"], called["source"]) == ("bytes", "live")
    wrapped = {"arguments": [{"bytes": called["result"]["value"]}]}
    _, content = asked(served, "POST", "/api/functions/decrypt_cookie", json.dumps(wrapped), **JSON)
    assert json.loads(content)["result"]["value"] == "user=admin; "


@pytest.mark.requires("cryptography", "netlink")
def test_every_function_can_be_called_in_any_thread(served: tuple[str, int]) -> None:
    _, content = asked(served, "GET", "/api/functions")
    for one in json.loads(content)["subsystems"]:
        for function in one["functions"]:
            path = f"/api/functions/{function['name']}"
            response, content = asked(served, "POST", path, json.dumps(function["try"]), **JSON)
            assert response.status == 200
            assert "failed_answers" not in json.loads(content), function["name"]


@pytest.mark.parametrize(
    ("path", "kind"),
    [("/", "text/html"), ("/static/console.css", "text/css"), ("/static/mark.svg", "image/svg")],
)
def test_the_page_is_served(served: tuple[str, int], path: str, kind: str) -> None:
    response, content = asked(served, "GET", path)
    assert response.status == 200
    assert str(response.getheader("Content-Type")).startswith(kind)
    assert content


def test_all_that_the_page_names_is_there(served: tuple[str, int]) -> None:
    page = asked(served, "GET", "/")[1].decode()
    wanted = set(re.findall(r'(?:src|href)="(/[^"#]*)"', page))
    for path in sorted(wanted):
        response, content = asked(served, "GET", path)
        assert response.status == 200, path
        if path.endswith(".js"):
            kind = str(response.getheader("Content-Type"))
            assert "javascript" in kind  # or a browser runs none of it
            wanted |= {
                f"/static/{name}" for name in re.findall(r'from "\./(.*?)"', content.decode())
            }
    assert len(wanted) > 3


def test_a_foreign_host_is_refused_on_the_wire(served: tuple[str, int]) -> None:
    for host in ("example.com", f"example.com:{served[1]}", ""):
        assert error(asked(served, "GET", "/", Host=host))["status"] == 403
    answered = exchanged(served, b"GET / HTTP/1.0\r\n\r\n")  # without any
    assert answered.startswith(b"HTTP/1.0 403 ")


def test_a_foreign_origin_is_refused_on_the_wire(served: tuple[str, int]) -> None:
    origin = {"Origin": "http://example.com", **JSON}
    assert error(asked(served, "POST", "/api/functions/get_token", "{}", **origin))["status"] == 403
    own = {"Origin": f"http://{served[0]}:{served[1]}", **JSON}
    assert asked(served, "POST", "/api/functions/get_token", "{}", **own)[0].status == 200


@pytest.mark.parametrize("size", [security.MOST_BYTES + 1, 20 * security.MOST_BYTES])
def test_a_body_too_large_is_one_error_in_json(served: tuple[str, int], size: int) -> None:
    head = f"POST /api/captures/arp HTTP/1.1\r\nHost: {served[0]}\r\nContent-Length: {size}\r\n"
    kind = "Content-Type: application/json\r\nConnection: close\r\n\r\n"
    # The largest is refused for what it says it is, before any of it is sent.
    sent = size if size < 2 * security.MOST_BYTES else 0
    answered = exchanged(served, (head + kind).encode() + b" " * sent)
    assert answered.startswith(b"HTTP/1.1 413 ")
    assert json.loads(answered.partition(b"\r\n\r\n")[2])["error"]["status"] == 413


def test_a_body_too_large_in_pieces_is_refused_too(served: tuple[str, int]) -> None:
    piece = b"80000\r\n" + b" " * 0x80000 + b"\r\n"
    head = f"POST /api/captures/arp HTTP/1.1\r\nHost: {served[0]}\r\nConnection: close\r\n"
    kind = "Content-Type: application/json\r\nTransfer-Encoding: chunked\r\n\r\n"
    answered = exchanged(served, (head + kind).encode() + piece * 3 + b"0\r\n\r\n")
    assert answered.startswith(b"HTTP/1.1 413 ")


@pytest.mark.parametrize(
    "request_",
    [
        b"nonsense\r\n\r\n",
        b"GET / HTTP/1.1\r\nHost : localhost\r\n\r\n",
        b"POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
    ],
    ids=["start line", "header", "length"],
)
def test_what_is_no_http_is_answered_in_json(served: tuple[str, int], request_: bytes) -> None:
    head, _, body = exchanged(served, request_).partition(b"\r\n\r\n")
    assert re.match(rb"HTTP/1\.\d 4\d\d ", head)
    assert b"Content-Type: application/json" in head
    assert json.loads(body)["error"]["problem"]


@pytest.mark.workstation_only("/proc/net/tcp has the byte order of the workstation's kernel")
def test_it_listens_on_loopback_and_nowhere_else(tmp_path: Path) -> None:
    with running(tmp_path) as (process, host, port):
        listening = [
            connection.laddr
            for connection in psutil.Process(process.pid).net_connections("inet")
            if connection.status == psutil.CONN_LISTEN
        ]
    assert listening == [("127.0.0.1", port)]
    assert host == "127.0.0.1"


@pytest.mark.parametrize("address", ["0.0.0.0", "::", "192.0.2.1"])
def test_it_does_not_leave_loopback_without_the_words(tmp_path: Path, address: str) -> None:
    done = subprocess.run(
        [sys.executable, "-m", "veldarin_simulator", "console", "--port", "0", "--host", address],
        cwd=isolated.ROOT,
        env={**os.environ, "APPLIANCE_STATE": str(tmp_path)},
        capture_output=True,
        text=True,
        timeout=SECONDS,
    )
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.count("\n") == 1
    assert "add --i-know-this-is-not-protected" in done.stderr


def test_it_leaves_loopback_when_told_in_words(tmp_path: Path) -> None:
    with running(tmp_path, "--host", "0.0.0.0", "--i-know-this-is-not-protected") as (_, _, port):
        at = ("127.0.0.1", port)
        assert asked(at, "GET", "/api/functions", Host=f"192.0.2.1:{port}")[0].status == 200
        assert asked(at, "GET", "/api/functions", Host="example.com")[0].status == 403


@pytest.mark.parametrize("ending", [signal.SIGTERM, signal.SIGINT])
def test_it_ends_when_told_and_leaves_nothing_behind(
    tmp_path: Path, ending: signal.Signals
) -> None:
    with running(tmp_path) as (process, host, port):
        path = "/api/functions/get_token"
        assert asked((host, port), "POST", path, "{}", **JSON)[0].status == 200
        assert list((tmp_path / "temporary").iterdir())
        process.send_signal(ending)
        _, errors = process.communicate(timeout=SECONDS)
        assert (process.returncode, errors) == (0, "")
    assert list((tmp_path / "temporary").iterdir()) == []


def test_a_port_that_is_taken_is_one_line(served: tuple[str, int], tmp_path: Path) -> None:
    done = subprocess.run(
        [sys.executable, "-m", "veldarin_simulator", "console", "--port", str(served[1])],
        cwd=isolated.ROOT,
        env={**os.environ, "APPLIANCE_STATE": str(tmp_path)},
        capture_output=True,
        text=True,
        timeout=SECONDS,
    )
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == (
        f"appliance: 127.0.0.1 port {served[1]}: address already in use"
        " (choose another with --port)\n"
    )


@pytest.mark.skipif("LD_PRELOAD" in os.environ, reason="the sanitizer's own work would count")
@pytest.mark.workstation_only("times mean nothing under emulation")
def test_starting_takes_less_than_a_second_of_work(tmp_path: Path) -> None:
    with running(tmp_path) as (process, _, _):
        times = psutil.Process(process.pid).cpu_times()
    assert times.user + times.system < 1
