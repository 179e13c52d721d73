"""The views: one function for each row of `app.ROUTES`."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

from pyramid.response import Response

from veldarin_simulator import parse_capture
from veldarin_simulator.console import serialization
from veldarin_simulator.console.arguments import decode_call, encode_utf8, parse_integer
from veldarin_simulator.console.errors import ApiError
from veldarin_simulator.console.function_index import function_index
from veldarin_simulator.console.session import Session
from veldarin_simulator.simulator import MODULE

_PAGE = Path(__file__).with_name("static") / "console.html"

Request = Any  # Pyramid has no types
View = dict[str, Any]


def page(_request: Request) -> Response:
    """Return the page."""
    return Response(body=_PAGE.read_bytes(), content_type="text/html", charset="utf-8")


def list_functions(request: Request) -> View:
    """Return the thirty functions by subsystem."""
    return {"module": MODULE, "subsystems": function_index(_session(request).functions)}


def call_function(request: Request) -> View:
    """Call a function; an exception that it raises is an ordinary response."""
    session, name = _session(request), request.matchdict["name"]
    if name not in session.functions:
        raise ApiError(404, f"the module has no function {name}")
    call = session.call(name, *decode_call(_body(request)))
    outcome = "result" if call.exception is None else "exception"
    return {
        "function": name,
        outcome: getattr(call, outcome),
        "source": serialization.encode_source(call.call_log),
        "microseconds": round(call.seconds * 1e6, 1),
        "call_log": [serialization.encode_native_call(entry) for entry in call.call_log],
        **({"simulator_error": call.simulator_error} if call.simulator_error else {}),
    }


def parse(request: Request) -> View:
    """Run a parser on command output."""
    parser = parse_capture.PARSERS.get(request.matchdict["kind"])
    if parser is None:
        raise ApiError(404, f"unknown parser, expected one of {', '.join(parse_capture.PARSERS)}")
    text = _string(_body(request), "text")
    try:
        content = encode_utf8(text)
    except ValueError as error:
        raise ApiError(400, str(error), at="text") from error
    parsed, origins = _session(request).parse(parser, content)
    view: View = {"lines": text.partition("\0")[0].split("\n")}
    if parsed.end is not None:
        view["note"] = f"the text ends at its first NUL byte, offset {parsed.end}"
    if parsed.error is not None:
        exception = serialization.encode_exception(parsed.error, parse_capture.__file__)
        view["exception"] = {**exception, "line": parsed.line, "detail": parsed.problem}
        return view
    if origins is None:
        view["note"] = (
            f"the text has more than {parse_capture.MAX_LINES} lines: origins are not traced"
        )
    return {
        **view,
        "result": serialization.encode_result(parsed.result),
        "origins": [{"line": line, "values": paths} for line, paths in (origins or {}).items()],
        "skipped": parsed.skipped,
    }


def list_scenarios(request: Request) -> View:
    """Return the scenarios and the state of the current one."""
    return _session(request).scenarios()


def put_current_scenario(request: Request) -> View:
    """Load a scenario, or none for a null name."""
    body = _body(request)
    if "name" not in body:
        detail = 'expected "name"; a scenario cannot be saved under the name "current"'
        raise ApiError(400, detail, at="name")
    _session(request).load(None if body["name"] is None else _string(body, "name"))
    return _session(request).scenarios()


def put_scenario(request: Request) -> View:
    """Save the current replies under a name."""
    for key in _body(request):
        raise ApiError(400, "saving a scenario takes no parameters: send {}", at=key)
    _session(request).save(request.matchdict["name"])
    return _session(request).scenarios()


def list_replies(request: Request) -> View:
    """Return every service and command with the source of its reply."""
    return {"replies": _session(request).replies()}


def get_reply(request: Request) -> View:
    """Return the text of one reply."""
    return _session(request).reply(request.matchdict["name"])


def put_reply(request: Request) -> View:
    """Override one reply."""
    _session(request).set_reply(request.matchdict["name"], _string(_body(request), "text"))
    return get_reply(request)


def delete_reply(request: Request) -> View:
    """Remove the override of one reply."""
    _session(request).set_reply(request.matchdict["name"], None)
    return get_reply(request)


def _session(request: Request) -> Session:
    session: Session = request.registry["session"]
    return session


def _body(request: Request) -> dict[str, Any]:
    try:
        text = request.body.decode("utf-8")
        body = json.loads(text, parse_int=parse_integer, parse_constant=_reject_constant)
    except UnicodeDecodeError as error:
        raise ApiError(400, "the body is not UTF-8") from error
    except json.JSONDecodeError as error:
        place = {"line": error.lineno, "column": error.colno}
        raise ApiError(400, f"the body is not JSON: {error.msg}", **place) from error
    except (ValueError, RecursionError) as error:
        raise ApiError(400, f"the body is not JSON: {error}") from error
    if not isinstance(body, dict):
        raise ApiError(400, "the body must be a JSON object")
    return body


def _reject_constant(name: str) -> None:
    raise ValueError(f"{name} is not valid JSON")


def _string(body: dict[str, Any], key: str) -> str:
    value = body.get(key)
    if not isinstance(value, str):
        raise ApiError(400, f'"{key}" must be a string', at=key)
    return value
