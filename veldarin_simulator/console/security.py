"""Who may talk to the console, and how. It asks for no password: whoever reaches it may call the
module. So it answers this machine's own pages and programs and nobody else's.

- `Host` has to name this machine, so that no foreign name can be pointed at it (DNS rebinding).
- `Origin`, where there is one, has to be the console's own, and a request that changes or calls has
  to be JSON, which no foreign form can send (forgery).
- Bodies are limited. Every refusal and every error is JSON.
- The page may load from the console and from nowhere else, and in no frame.
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

from veldarin_simulator.console.errors import Problem

MOST_BYTES = 1024 * 1024

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
_READS = frozenset({"GET", "HEAD"})

_log = logging.getLogger(__name__)

Handler = Callable[[Any], Any]


def tween(handler: Handler, registry: Any) -> Handler:
    """Around everything else: the checks before, the headers after, errors as JSON."""
    beyond_loopback = bool(registry.settings.get("console.beyond_loopback"))

    def guarded(request: Any) -> Any:
        try:
            _check_host(request, beyond_loopback)
            _check_origin(request)
            _check_body(request)
            response = handler(request)
        except Problem as problem:
            response = refusal(problem)
        except HTTPException as error:
            response = refusal(Problem(error.status_int, _sentence(request, error)))
        except Exception as error:
            _log.exception("%s %s", request.method, request.path_info)
            response = refusal(Problem(500, f"the console failed: {type(error).__name__}: {error}"))
        response.headers.update(_HEADERS)
        return response

    return guarded


def refusal(problem: Problem) -> Response:
    """A problem as a response."""
    return Response(
        body=problem.body(), status=problem.status.value, content_type="application/json"
    )


def is_own_host(host: str, beyond_loopback: bool) -> bool:
    """Whether a `Host` header names this machine. Beyond loopback addresses are names enough:
    nobody can point one at another machine."""
    found = _HOST.fullmatch(host)
    if found is None:
        return False
    name = found["name"].lower()
    if name in _LOOPBACK:
        return True
    return beyond_loopback and (name == socket.gethostname().lower() or _is_address(name))


def _is_address(name: str) -> bool:
    try:
        ip_address(name.strip("[]"))
    except ValueError:
        return False
    return True


def _check_host(request: Any, beyond_loopback: bool) -> None:
    host = request.headers.get("Host", "")
    if not is_own_host(host, beyond_loopback):
        raise Problem(403, f"the console is not {host[:100]!r}: a foreign Host header is refused")


def _check_origin(request: Any) -> None:
    origin = request.headers.get("Origin")
    if origin is not None and origin.lower() != f"http://{request.headers['Host']}".lower():
        raise Problem(403, f"a request from {origin[:100]!r} is refused: it is not the console's")


def _check_body(request: Any) -> None:
    if request.method in _READS:
        return
    if (request.content_length or 0) > MOST_BYTES:
        raise Problem(413, f"a body may have {MOST_BYTES} bytes", most_bytes=MOST_BYTES)
    if request.content_type != "application/json":
        raise Problem(415, "a body has to be sent as Content-Type: application/json")


def _sentence(request: Any, error: HTTPException) -> str:
    if error.status_int == 404:
        return f"there is no {request.method} {request.path_info}"
    return str(error.explanation or error.title)
