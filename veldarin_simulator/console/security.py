"""Limits the console to this machine's own pages and programs: it has no password.

- `Host` must name this machine, which defeats DNS rebinding.
- `Origin`, if present, must be the console's own, and a body must be sent as JSON or as an archive,
  which an HTML form cannot do; both defeat cross-site request forgery. A page of another site may
  link to the console's page and nothing else.
- A console that other machines can reach requires a token.
- The size of a body is limited. Every error is a problem-details response.
- The page loads content from the console only, and cannot be framed.
"""

from __future__ import annotations

import hmac
import logging
import re
import socket
import time
from collections.abc import Callable
from ipaddress import ip_address
from typing import Any
from urllib.parse import parse_qs, quote

from pyramid.httpexceptions import HTTPException, HTTPSeeOther
from pyramid.response import Response

from veldarin_simulator.console.errors import CONTENT_TYPE, ApiError

# Holds every archive, and every reply as a JSON string.
MAX_BODY_BYTES = 8 * 1024 * 1024

_HEADERS = {
    "Content-Security-Policy": "default-src 'none'; script-src 'self'; style-src 'self'; "
    "img-src 'self'; connect-src 'self'; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'",
    "Cross-Origin-Opener-Policy": "same-origin",
    "Cross-Origin-Resource-Policy": "same-origin",
    "Referrer-Policy": "no-referrer",
    "X-Content-Type-Options": "nosniff",
    "X-Frame-Options": "DENY",
    "Cache-Control": "no-store",
}
_HOST = re.compile(r"(?P<name>[A-Za-z0-9._-]+|\[[0-9A-Fa-f:.]+\])(?::[0-9]{1,5})?")
# How a browser describes a request that another site, or another server of this one, caused.
_FOREIGN_SITES = frozenset({"cross-site", "same-site"})

_log = logging.getLogger(__name__)
access_log = logging.getLogger(f"{__name__}.access")

Handler = Callable[[Any], Any]


def middleware(handler: Handler, registry: Any) -> Handler:
    """Check each request, add the headers and encode errors. (Pyramid's word is "tween".)"""
    allow_remote: bool = registry.settings["console.allow_remote"]
    token: str | None = registry.settings["console.token"]

    def respond(request: Any) -> Any:
        try:
            _check_path(request)
            _check_host(request, allow_remote)
            _check_origin(request)
            redirect = None if token is None else _check_token(request, token)
            _check_size(request)
            return redirect or handler(request)
        except ApiError as error:
            return _error_response(error)
        except HTTPException as error:
            return _error_response(_translate(request, error), Allow=error.headers.get("Allow"))
        except RecursionError:
            return _error_response(ApiError("too-large", "a value is nested too deeply"))
        except Exception as error:
            _log.exception("%s %s", request.method, request.path_info)
            detail = f"internal error: {type(error).__name__}: {error}"
            return _error_response(ApiError("internal", detail))

    def handle(request: Any) -> Any:
        started = time.perf_counter()
        response = respond(request)
        response.headers.update(_HEADERS)
        path = quote(request.environ["PATH_INFO"], encoding="latin-1")
        milliseconds = (time.perf_counter() - started) * 1000
        line = (request.remote_addr, request.method, path, response.status_int, milliseconds)
        access_log.info("%s %s %s %s %.0f ms", *line)
        return response

    return handle


def host_allowed(host: str, allow_remote: bool) -> bool:
    """Return whether a `Host` header names this machine.

    With `allow_remote` any IP address does: rebinding needs a name.
    """
    match = _HOST.fullmatch(host)
    if match is None:
        return False
    name = match["name"].lower()
    try:
        address = ip_address(name.strip("[]"))
    except ValueError:
        return name == "localhost" or (allow_remote and name == socket.gethostname().lower())
    return allow_remote or address.is_loopback


def _error_response(error: ApiError, **headers: str | None) -> Response:
    response = Response(body=error.to_json(), status=error.status, content_type=CONTENT_TYPE)
    if error.kind == "token-required":
        headers = {"WWW-Authenticate": "Bearer"}
    response.headers.update({name: value for name, value in headers.items() if value is not None})
    return response


def _check_path(request: Any) -> None:
    try:
        request.path_info  # noqa: B018 - decoded on access
    except UnicodeDecodeError as error:
        raise ApiError("malformed-request", "the path is not UTF-8") from error


def _check_host(request: Any, allow_remote: bool) -> None:
    host = request.headers.get("Host", "")
    if not host_allowed(host, allow_remote):
        detail = f"the Host header {host[:100]!r} does not name this console"
        raise ApiError("foreign-request", detail)


def _check_origin(request: Any) -> None:
    # Pyramid's check_csrf_origin looks at HTTPS requests only.
    origin = request.headers.get("Origin")
    if origin is not None and origin.lower() != f"http://{request.headers['Host']}".lower():
        raise ApiError("foreign-request", f"the origin {origin[:100]!r} is not allowed")
    site = request.headers.get("Sec-Fetch-Site", "").lower()
    is_link = request.headers.get("Sec-Fetch-Mode", "").lower() == "navigate"
    if site in _FOREIGN_SITES and not (is_link and request.path_info == "/"):
        raise ApiError("foreign-request", f"the request is {site}")


def _check_token(request: Any, token: str) -> Any:
    """Check that the request presents the token, in the way of a program or of a browser.

    Returns:
        A redirection that removes the token from the address of the page and stores it as a cookie,
        or None.
    """
    cookie = f"console-token-{request.host_port}"
    kind, _, bearer = request.headers.get("Authorization", "").partition(" ")
    presented = bearer if kind.lower() == "bearer" else request.cookies.get(cookie, "")
    if _is_equal(presented, token):
        return None
    query = parse_qs(request.query_string, errors="replace")
    if request.path_info != "/" or not _is_equal(query.get("token", [""])[0], token):
        raise ApiError("token-required", "open the address that the console printed")
    redirect = HTTPSeeOther("/")
    redirect.set_cookie(cookie, token, httponly=True, samesite="Strict")
    return redirect


def _is_equal(presented: str, token: str) -> bool:
    return hmac.compare_digest(presented.encode("utf-8", "replace"), token.encode())


def _check_size(request: Any) -> None:
    if (request.content_length or 0) > MAX_BODY_BYTES:
        detail = f"the body is larger than {MAX_BODY_BYTES} bytes"
        raise ApiError("too-large", detail, max_bytes=MAX_BODY_BYTES)


def _translate(request: Any, error: HTTPException) -> ApiError:
    if error.status_int == 404:
        return ApiError("unknown-resource", f"unknown resource {request.path_info}")
    kind = "method-not-allowed" if error.status_int == 405 else "malformed-request"
    detail = str(error.detail or error.explanation or error.title)
    return ApiError(kind, detail, status=error.status_int)
