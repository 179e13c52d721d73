"""Requests that the console rejects, and what its sources must not contain."""

from __future__ import annotations

import ast
import re
import socket
from pathlib import Path
from typing import Any

import pytest
from webtest import TestApp

from veldarin_simulator import console
from veldarin_simulator.console import security
from veldarin_simulator.console.app import create_application
from veldarin_simulator.console.session import Session

SOURCES = Path(str(console.__file__)).parent
CALL = "/api/functions/switch_mclag_icl"
PATHS = pytest.mark.parametrize("path", ["/", "/api/functions", "/static/console.js", "/nothing"])
JSON = {"Content-Type": "application/json"}


def detail(response: Any) -> str:
    assert response.json["status"] == response.status_int
    return str(response.json["detail"])


# Host

OWN = "localhost localhost:8430 127.0.0.1:1 [::1]:8430 LOCALHOST:80 127.0.0.1".split()
FOREIGN = """
    example.com example.com:8430 localhost.example.com localhost. 127.0.0.1.example.com:8430
    127.0.0.2:8430 localhost:8430@example.com localhost:port localhost:123456 [::1 [::2]:8430
    192.0.2.1:8430 0.0.0.0:8430
""".split()


@pytest.mark.parametrize("host", OWN)
def test_own_host_is_accepted(client: TestApp, host: str) -> None:
    client.get("/api/functions", extra_environ={"HTTP_HOST": host}, status=200)


@PATHS
@pytest.mark.parametrize("host", [*FOREIGN, "", "localhost, example.com"])
def test_foreign_host_is_rejected_on_every_path(client: TestApp, host: str, path: str) -> None:
    response = client.get(path, extra_environ={"HTTP_HOST": host}, status=403)
    assert "does not name this console" in detail(response)


def test_foreign_host_cannot_call(client: TestApp) -> None:
    client.post_json(CALL, {}, extra_environ={"HTTP_HOST": "example.com"}, status=403)


def test_remote_host_may_be_an_address_or_the_own_name() -> None:
    for host in ("192.0.2.1:8430", "[2001:db8::1]:8430", f"{socket.gethostname()}:80", *OWN):
        assert security.host_allowed(host, allow_remote=True), host
    for host in ("example.com", "192.0.2.1.example.com", "", "[192.0.2.1", "192.0.2.256"):
        assert not security.host_allowed(host, allow_remote=True), host


def test_remote_application_checks_the_host(session: Session) -> None:
    remote = TestApp(create_application(session, allow_remote=True))
    remote.get("/api/functions", extra_environ={"HTTP_HOST": "192.0.2.1:8430"}, status=200)
    remote.get("/api/functions", extra_environ={"HTTP_HOST": "example.com"}, status=403)


# Origin


@pytest.mark.parametrize("headers", [{"Origin": "http://localhost:8430"}, {}])
def test_own_or_absent_origin_is_accepted(client: TestApp, headers: dict[str, str]) -> None:
    client.post_json(CALL, {}, headers=headers, status=200)


ORIGINS = """
    http://example.com http://example.com:8430 https://localhost:8430 http://localhost:9999
    http://localhost http://127.0.0.1:8430 http://localhost:8430.example.com
    http://localhost:8430/ null
""".split()


@pytest.mark.parametrize("origin", [*ORIGINS, ""])
def test_foreign_origin_is_rejected(client: TestApp, origin: str) -> None:
    arguments = {"headers": {"Origin": origin}, "status": 403}
    for response in (
        client.post_json(CALL, {}, **arguments),
        client.get("/api/scenarios", **arguments),
        client.delete("/api/replies/build_switch_lg_state", **arguments),
    ):
        assert "is not allowed" in detail(response)


# Bodies


@pytest.mark.parametrize("method", ["POST", "PUT", "PATCH"])
@pytest.mark.parametrize(
    "content_type",
    ["text/plain", "application/x-www-form-urlencoded", "multipart/form-data; boundary=x", ""],
)
def test_body_of_an_html_form_is_rejected(client: TestApp, method: str, content_type: str) -> None:
    headers = {"Content-Type": content_type}
    response = client.request(CALL, method=method, body=b"{}", headers=headers, status=415)
    assert "Content-Type: application/json" in detail(response)


def test_content_type_may_have_a_charset(client: TestApp) -> None:
    client.post(CALL, "{}", {"Content-Type": "application/json; charset=utf-8"}, status=200)


def test_body_above_the_size_limit_is_rejected(client: TestApp) -> None:
    body = b'{"arguments": []}'
    client.post(CALL, body.ljust(security.MAX_BODY_BYTES), JSON, status=200)
    response = client.post(CALL, body.ljust(security.MAX_BODY_BYTES + 1), JSON, status=413)
    assert detail(response) == "the body is larger than 1048576 bytes"
    assert response.json["max_bytes"] == security.MAX_BODY_BYTES


# Responses


@PATHS
def test_every_response_has_security_headers(client: TestApp, path: str) -> None:
    headers = client.get(path, status="*").headers
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


PATHS_OUTSIDE = "/static/../app.py /static/..%2fapp.py /static/%2e%2e/app.py /../app.py".split()


@pytest.mark.parametrize("path", [*PATHS_OUTSIDE, "/static//etc/passwd", "/static/"])
def test_files_outside_of_static_are_not_served(client: TestApp, path: str) -> None:
    assert "unknown resource" in detail(client.get(path, status=404))


# Sources

EVALUATING = {"eval", "exec", "compile", "__import__", "ast.literal_eval", "os.system"}


def called_names(file: Path) -> set[str]:
    tree = ast.parse(file.read_text())
    return {ast.unparse(node.func) for node in ast.walk(tree) if isinstance(node, ast.Call)}


def test_sources_do_not_evaluate_requests() -> None:
    files = sorted(SOURCES.glob("*.py"))
    assert len(files) > 8
    found = {
        file.name: called_names(file) & {*EVALUATING, "importlib.import_module"} for file in files
    }
    assert {name: names for name, names in found.items() if names} == {}
    for file in files:
        assert not re.search(r"\b(pickle|marshal|shelve|yaml|subprocess)\b", file.read_text()), file


def test_sources_do_not_import_the_command_line() -> None:
    imports = r"^ *(from|import) veldarin_simulator(\.cli| import .*\bcli\b)"
    for file in SOURCES.glob("*.py"):
        assert not re.search(imports, file.read_text(), re.MULTILINE), file


def test_page_creates_no_markup_and_loads_only_from_the_console() -> None:
    files = sorted(path for path in (SOURCES / "static").rglob("*") if path.is_file())
    assert {".html", ".css", ".js", ".svg"} == {file.suffix for file in files}
    for file in files:
        text = file.read_text().replace("http://www.w3.org/2000/svg", "")
        assert not re.search(r"https?://|//[a-z]+\.", text), file.name
        assert not re.search(r"innerHTML|outerHTML|insertAdjacentHTML|document\.write", text)
        assert not re.search(r"\beval\(|new Function|javascript:", text)
    html = (SOURCES / "static" / "console.html").read_text()
    assert not re.search(r"<script(?![^>]*\bsrc=)|<style|\son\w+=|\sstyle=", html)
