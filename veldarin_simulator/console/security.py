"""Limits the console to this machine's own pages and programs: it has no password.

- `Host` must name this machine, which defeats DNS rebinding.
- `Origin`, if present, must be the console's own, and a body must be sent as JSON, which an HTML
  form cannot do; both defeat cross-site request forgery.
- The size of a body is limited. Every error is a problem-details response.
- The page loads content from the console only, and cannot be framed.
"""

from __future__ import annotations

import logging
import re
import socket
from collections.abc import Callable
from ipaddress import ip_address
from typing import Any

from pyramid.httpexceptions import HTTPException
from pyramid.response import Response

from veldarin_simulator.console.errors import CONTENT_TYPE, ApiError

MAX_BODY_BYTES = 1024 * 1024

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
_LOOPBACK = frozenset({"localhost", "127.0.0.1", "[::1]"})
_WITHOUT_BODY = frozenset({"GET", "HEAD", "DELETE"})

_log = logging.getLogger(__name__)

Handler = Callable[[Any], Any]


def middleware(handler: Handler, registry: Any) -> Handler:
    """Check each request, add the headers and encode errors. (Pyramid's word is "tween".)"""
    allow_remote = bool(registry.settings.get("console.allow_remote"))

    def handle(request: Any) -> Any:
        try:
            _check_host(request, allow_remote)
            _check_origin(request)
            _check_body(request)
            response = handler(request)
        except ApiError as error:
            response = _error_response(error)
        except HTTPException as error:
            response = _error_response(ApiError(error.status_int, _detail(request, error)))
            if "Allow" in error.headers:
                response.headers["Allow"] = error.headers["Allow"]
        except Exception as error:
            _log.exception("%s %s", request.method, request.path_info)
            detail = f"internal error: {type(error).__name__}: {error}"
            response = _error_response(ApiError(500, detail))
        response.headers.update(_HEADERS)
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
    if name in _LOOPBACK:
        return True
    return allow_remote and (name == socket.gethostname().lower() or _is_address(name))


def _is_address(name: str) -> bool:
    try:
        ip_address(name.strip("[]"))
    except ValueError:
        return False
    return True


def _error_response(error: ApiError) -> Response:
    return Response(body=error.to_json(), status=error.status.value, content_type=CONTENT_TYPE)


def _check_host(request: Any, allow_remote: bool) -> None:
    host = request.headers.get("Host", "")
    if not host_allowed(host, allow_remote):
        raise ApiError(403, f"the Host header {host[:100]!r} does not name this console")


def _check_origin(request: Any) -> None:
    # Pyramid's check_csrf_origin looks at HTTPS requests only.
    origin = request.headers.get("Origin")
    if origin is not None and origin.lower() != f"http://{request.headers['Host']}".lower():
        raise ApiError(403, f"the origin {origin[:100]!r} is not allowed")


def _check_body(request: Any) -> None:
    if (request.content_length or 0) > MAX_BODY_BYTES:
        detail = f"the body is larger than {MAX_BODY_BYTES} bytes"
        raise ApiError(413, detail, max_bytes=MAX_BODY_BYTES)
    if request.method not in _WITHOUT_BODY and request.content_type != "application/json":
        raise ApiError(415, "send the body as Content-Type: application/json")


def _detail(request: Any, error: HTTPException) -> str:
    if error.status_int == 404:
        return f"unknown resource {request.path_info}"
    return str(error.detail or error.explanation or error.title)
