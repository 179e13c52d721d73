"""Requests that the console rejects, and what its sources must not contain."""

from __future__ import annotations

import ast
import logging
import re
import socket
from pathlib import Path
from typing import Any

import pytest
from webtest import TestApp

from veldarin_simulator import console
from veldarin_simulator.console import security
from veldarin_simulator.console.app import ROUTES, create_application
from veldarin_simulator.console.session import Session

SOURCES = Path(str(console.__file__)).parent
CALL = "/api/functions/switch_mclag_icl"
PATHS = pytest.mark.parametrize("path", ["/", "/api/functions", "/static/console.js", "/nothing"])
JSON = {"Content-Type": "application/json"}


def detail(response: Any) -> str:
    assert response.json["status"] == response.status_int
    return str(response.json["detail"])


# Host

OWN = (
    "localhost localhost:8430 127.0.0.1:1 [::1]:8430 LOCALHOST:80 127.0.0.1 127.0.0.5:8430".split()
)
FOREIGN = """
    example.com example.com:8430 localhost.example.com localhost. 127.0.0.1.example.com:8430
    localhost:8430@example.com localhost:port localhost:123456 [::1 [::2]:8430
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


@pytest.mark.parametrize("site", ["cross-site", "same-site", "Cross-Site"])
def test_request_of_another_site_is_rejected(client: TestApp, site: str) -> None:
    headers = {"Sec-Fetch-Site": site, "Sec-Fetch-Mode": "no-cors"}
    for path in ("/", "/api/functions", "/static/console.js"):
        assert (
            detail(client.get(path, headers=headers, status=403))
            == f"the request is {site.lower()}"
        )
    client.post_json(CALL, {}, headers=headers, status=403)
    link = {"Sec-Fetch-Site": site, "Sec-Fetch-Mode": "navigate"}
    client.get("/", headers=link, status=200)
    client.get("/api/functions", headers=link, status=403)


@pytest.mark.parametrize("site", ["same-origin", "none"])
def test_request_of_the_page_or_the_user_is_accepted(client: TestApp, site: str) -> None:
    client.post_json(CALL, {}, headers={"Sec-Fetch-Site": site}, status=200)


# Token

TOKEN = "s3cret"


@pytest.fixture
def remote(session: Session) -> TestApp:
    """A client of a console that requires a token."""
    application = create_application(session, allow_remote=True, token=TOKEN)
    return TestApp(application, extra_environ={"HTTP_HOST": "192.0.2.1:8430"})


@pytest.mark.parametrize("path", ["/", "/api/status", "/static/console.js", "/nothing"])
@pytest.mark.parametrize(
    "headers",
    [
        {},
        {"Authorization": "Bearer other"},
        {"Authorization": TOKEN},
        {"Authorization": f"Basic {TOKEN}"},
        {"Authorization": "Bearer "},
        {"Cookie": "console-token-8430=other"},
        {"Cookie": f"console-token-1={TOKEN}"},
    ],
)
def test_request_without_the_token_is_rejected(
    remote: TestApp, path: str, headers: dict[str, str]
) -> None:
    for query in ("", "?token=", "?token=other", "?token=%ff"):
        response = remote.get(path + query, headers=headers, status=401)
        assert response.json["type"] == "/problems/token-required"
        assert response.headers["WWW-Authenticate"] == "Bearer"


def test_program_presents_the_token_in_a_header(remote: TestApp) -> None:
    for scheme in ("Bearer", "bearer"):
        headers = {"Authorization": f"{scheme} {TOKEN}"}
        call = remote.post_json(CALL, {}, headers=headers, status=200)
        assert TOKEN not in call.text
        assert 'curl -H "Authorization: Bearer $CONSOLE_TOKEN"' in call.json["code"]["curl"]


def test_browser_exchanges_the_token_for_a_cookie(remote: TestApp) -> None:
    remote.get(f"/api/status?token={TOKEN}", status=401)
    response = remote.get(f"/?token={TOKEN}", status=303)
    assert response.headers["Location"] == "http://192.0.2.1:8430/"
    cookie = response.headers["Set-Cookie"]
    assert {"HttpOnly", "SameSite=Strict"} <= set(cookie.split("; "))
    remote.get("/", status=200)
    remote.post_json(CALL, {}, status=200)


def test_requests_are_logged_without_the_token(
    remote: TestApp, caplog: pytest.LogCaptureFixture
) -> None:
    caplog.set_level(logging.INFO, security.access_log.name)
    remote.get(f"/?token={TOKEN}", {"x": "\n"}, extra_environ={"REMOTE_ADDR": "192.0.2.9"})
    remote.get("/a%0Ab", status=404, extra_environ={"REMOTE_ADDR": "192.0.2.9"})
    first, second = caplog.messages
    assert re.fullmatch(r"192\.0\.2\.9 GET / 303 \d+ ms", first)
    assert re.fullmatch(r"192\.0\.2\.9 GET /a%0Ab 404 \d+ ms", second)


# Paths


@pytest.mark.parametrize("path", ["/%ff", "/api/replies/%ff", "/static/%80.js", "/api/%ed%a0%80"])
def test_path_that_is_not_utf8_is_rejected(client: TestApp, path: str) -> None:
    for method in ("GET", "PUT", "OPTIONS"):
        response = client.request(path, method=method, status=400)
        assert response.json["type"] == "/problems/malformed-request"
        assert response.headers["X-Content-Type-Options"] == "nosniff"


# Bodies


BODIES = [(one.method, one.path) for one in ROUTES if one.method in ("POST", "PUT")]


@pytest.mark.parametrize(
    "content_type",
    ["text/plain", "application/x-www-form-urlencoded", "multipart/form-data; boundary=x", ""],
)
@pytest.mark.parametrize(("method", "path"), BODIES)
def test_body_of_an_html_form_is_rejected(
    client: TestApp, method: str, path: str, content_type: str
) -> None:
    path = path.replace("{name:(?s:.+)}", "x").replace("{kind}", "arp")
    path = path.replace("{name}", "new_cookie_id" if "functions" in path else "initial")
    body = b'{"name": null, "text": "", "to": "x"}'
    response = client.request(
        path, method=method, body=body, headers={"Content-Type": content_type}, status=415
    )
    assert "send the body as Content-Type: application/" in detail(response)


@pytest.mark.parametrize(
    "kind", ["application/json; charset=utf-8", "Application/JSON", "application/json;x=y"]
)
def test_content_type_has_any_case_and_parameters(client: TestApp, kind: str) -> None:
    client.post(CALL, "{}", {"Content-Type": kind}, status=200)


def test_body_above_the_size_limit_is_rejected(client: TestApp) -> None:
    body = b'{"arguments": []}'
    client.post(CALL, body.ljust(security.MAX_BODY_BYTES), JSON, status=200)
    response = client.post(CALL, body.ljust(security.MAX_BODY_BYTES + 1), JSON, status=413)
    assert detail(response) == f"the body is larger than {security.MAX_BODY_BYTES} bytes"
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
