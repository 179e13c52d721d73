"""Who the console answers: this machine's own pages and programs, in JSON, in measure."""

from __future__ import annotations

import ast
import re
import socket
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest
from webtest import TestApp

from tests.support import isolated
from tests.support.console import client, opened
from veldarin_simulator.console import security
from veldarin_simulator.console.app import application
from veldarin_simulator.console.session import Bench

CONSOLE = isolated.ROOT / "veldarin_simulator" / "console"
CALL = "/api/functions/switch_mclag_icl"


@pytest.fixture
def bench(build: None, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Iterator[Bench]:
    """A bench on the test's scenario."""
    with opened(tmp_path, monkeypatch) as bench:
        yield bench


@pytest.fixture
def app(bench: Bench) -> TestApp:
    """A client on loopback."""
    return client(bench)


def problem(response: Any) -> str:
    error = response.json["error"]
    assert error["status"] == response.status_int
    return str(error["problem"])


# Host

OWN = ["localhost", "localhost:8430", "127.0.0.1:1", "[::1]:8430", "LOCALHOST:80", "127.0.0.1"]
FOREIGN = [
    "",
    "example.com",
    "example.com:8430",
    "localhost.example.com",
    "localhost.",
    "127.0.0.1.example.com:8430",
    "127.0.0.2:8430",
    "localhost:8430@example.com",
    "localhost, example.com",
    "localhost:port",
    "localhost:123456",
    "[::1",
    "[::2]:8430",
    "192.0.2.1:8430",
    "0.0.0.0:8430",
]


@pytest.mark.parametrize("host", OWN)
def test_this_machines_names_are_answered(app: TestApp, host: str) -> None:
    assert app.get("/api/functions", extra_environ={"HTTP_HOST": host}).status_int == 200


@pytest.mark.parametrize("path", ["/", "/api/functions", "/static/console.js", "/nothing"])
@pytest.mark.parametrize("host", FOREIGN)
def test_a_foreign_host_is_refused_whatever_it_asks(app: TestApp, host: str, path: str) -> None:
    response = app.get(path, extra_environ={"HTTP_HOST": host}, status=403)
    assert "foreign Host header is refused" in problem(response)


def test_a_foreign_host_may_not_call(app: TestApp) -> None:
    app.post_json(CALL, {}, extra_environ={"HTTP_HOST": "example.com"}, status=403)


def test_beyond_loopback_addresses_and_the_machines_name_are_answered() -> None:
    for host in ("192.0.2.1:8430", "[2001:db8::1]:8430", f"{socket.gethostname()}:80", *OWN):
        assert security.is_own_host(host, beyond_loopback=True), host
    for host in ("example.com", "192.0.2.1.example.com", "", "[192.0.2.1", "192.0.2.256"):
        assert not security.is_own_host(host, beyond_loopback=True), host


def test_the_application_is_told_whether_it_goes_beyond_loopback(bench: Bench) -> None:
    beyond = TestApp(application(bench, beyond_loopback=True))
    beyond.get("/api/functions", extra_environ={"HTTP_HOST": "192.0.2.1:8430"}, status=200)
    beyond.get("/api/functions", extra_environ={"HTTP_HOST": "example.com"}, status=403)


# Origin

SERVED = {"HTTP_HOST": "localhost:8430"}


def test_the_consoles_own_page_may_call(app: TestApp) -> None:
    app.post_json(CALL, {}, headers={"Origin": "http://localhost:8430"}, extra_environ=SERVED)
    app.post_json(CALL, {}, extra_environ=SERVED)  # a program, which sends none


@pytest.mark.parametrize(
    "origin",
    [
        "http://example.com",
        "http://example.com:8430",
        "https://localhost:8430",
        "http://localhost:9999",
        "http://localhost",
        "http://127.0.0.1:8430",
        "http://localhost:8430.example.com",
        "http://localhost:8430/",
        "null",
        "",
    ],
)
def test_a_foreign_origin_is_refused(app: TestApp, origin: str) -> None:
    asked = {"headers": {"Origin": origin}, "extra_environ": SERVED, "status": 403}
    for response in (app.post_json(CALL, {}, **asked), app.get("/api/scenarios", **asked)):
        assert "is refused: it is not the console's" in problem(response)


# Bodies


@pytest.mark.parametrize(
    "content_type",
    ["text/plain", "application/x-www-form-urlencoded", "multipart/form-data; boundary=x", ""],
)
def test_what_a_foreign_form_can_send_is_refused(app: TestApp, content_type: str) -> None:
    response = app.post(CALL, "{}", {"Content-Type": content_type}, status=415)
    assert "Content-Type: application/json" in problem(response)


def test_a_character_set_may_be_named(app: TestApp) -> None:
    app.post(CALL, "{}", {"Content-Type": "application/json; charset=utf-8"}, status=200)


@pytest.mark.parametrize("method", ["PUT", "PATCH", "DELETE"])
def test_other_methods_are_held_to_the_same(app: TestApp, method: str) -> None:
    app.request(CALL, method=method, body=b"{}", status=415)
    app.request(CALL, method=method, body=b"{}", content_type="application/json", status=404)


def test_a_body_of_the_most_bytes_is_taken_and_one_more_is_not(app: TestApp) -> None:
    json = {"Content-Type": "application/json"}
    body = b'{"arguments": []}'
    app.post(CALL, body.ljust(security.MOST_BYTES), json, status=200)
    response = app.post(CALL, body.ljust(security.MOST_BYTES + 1), json, status=413)
    assert problem(response) == "a body may have 1048576 bytes"
    assert response.json["error"]["most_bytes"] == security.MOST_BYTES


# Answers


@pytest.mark.parametrize("path", ["/", "/api/functions", "/static/console.js", "/nothing"])
def test_every_answer_says_what_a_page_may_do_with_it(app: TestApp, path: str) -> None:
    headers = app.get(path, status="*").headers
    policy = dict(
        part.strip().split(" ", 1) for part in headers["Content-Security-Policy"].split(";")
    )
    assert policy == {
        "default-src": "'none'",
        "script-src": "'self'",
        "style-src": "'self'",
        "img-src": "'self'",
        "connect-src": "'self'",
        "base-uri": "'none'",
        "form-action": "'none'",
        "frame-ancestors": "'none'",
    }
    assert headers["X-Content-Type-Options"] == "nosniff"
    assert headers["X-Frame-Options"] == "DENY"
    assert headers["Cross-Origin-Resource-Policy"] == "same-origin"
    assert headers["Referrer-Policy"] == "no-referrer"
    assert headers["Cache-Control"] == "no-store"
    assert "Access-Control-Allow-Origin" not in headers


@pytest.mark.parametrize(
    "path",
    [
        "/static/../app.py",
        "/static/..%2fapp.py",
        "/static/%2e%2e/app.py",
        "/static//etc/passwd",
        "/static/",
        "/../app.py",
    ],
)
def test_files_beside_the_page_are_all_that_is_served(app: TestApp, path: str) -> None:
    assert "there is no GET" in problem(app.get(path, status=404))


# The sources


def called(file: Path) -> set[str]:
    """The functions that a file calls, as it writes them."""
    tree = ast.parse(file.read_text())
    return {ast.unparse(node.func) for node in ast.walk(tree) if isinstance(node, ast.Call)}


EVALUATING = {
    "eval",
    "exec",
    "compile",
    "__import__",
    "ast.literal_eval",
    "importlib.import_module",
    "os.system",
}


def test_nothing_in_the_console_evaluates_what_it_is_given() -> None:
    files = sorted(CONSOLE.glob("*.py"))
    assert len(files) > 8
    found = {file.name: called(file) & EVALUATING for file in files}
    # The catalogue reads the examples of the Python face, which is the project's own text.
    assert {name for name, names in found.items() if names} == {"function_index.py"}
    assert found["function_index.py"] == {"ast.literal_eval"}
    for file in files:
        assert not re.search(r"\b(pickle|marshal|shelve|yaml|subprocess)\b", file.read_text()), file


def test_the_page_makes_no_markup_of_text_and_loads_nothing_from_elsewhere() -> None:
    files = sorted((CONSOLE / "static").iterdir())
    assert {".html", ".css", ".js", ".svg"} == {file.suffix for file in files}
    for file in files:
        text = file.read_text().replace("http://www.w3.org/2000/svg", "")
        assert not re.search(r"https?://|//[a-z]+\.", text), file.name
        assert not re.search(r"innerHTML|outerHTML|insertAdjacentHTML|document\.write", text)
        assert not re.search(r"\beval\(|new Function|javascript:", text)
    html = (CONSOLE / "static" / "console.html").read_text()
    assert not re.search(r"<script(?![^>]*\bsrc=)|<style|\son\w+=|\sstyle=", html)
