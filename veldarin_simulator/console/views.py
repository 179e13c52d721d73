"""The views: one function for each row of `app.ROUTES`."""

from __future__ import annotations

import json
import re
from pathlib import Path
from typing import Any

from pyramid.response import Response

from veldarin_simulator import call_log, parse_capture, strict_json
from veldarin_simulator.console import code_examples, openapi, scenario_store, serialization
from veldarin_simulator.console.arguments import decode_call, encode_utf8, parse_integer
from veldarin_simulator.console.errors import PROBLEMS, ApiError
from veldarin_simulator.console.function_index import function_index
from veldarin_simulator.console.session import Session
from veldarin_simulator.simulator import MODULE

_PAGE = Path(__file__).with_name("static") / "console.html"
_ARCHIVE = "application/zip"
_AUTO = "auto"

Request = Any  # Pyramid has no types
View = dict[str, Any]


def page(_request: Request) -> Response:
    """Return the page."""
    return Response(body=_PAGE.read_bytes(), content_type="text/html", charset="utf-8")


def problem(request: Request) -> Response:
    """Explain a type of error."""
    found = PROBLEMS.get(request.matchdict["name"])
    if found is None:
        raise ApiError("unknown-resource", f"unknown type, expected one of {', '.join(PROBLEMS)}")
    return Response(text=f"{found.status}: {found.title}\n", content_type="text/plain")


def get_status(request: Request) -> View:
    """Return the revision, the running call and the loaded scenario."""
    return _session(request).status()


def get_openapi(request: Request) -> View:
    """Return the description of this interface."""
    return openapi.describe(request.registry["routes"], _session(request).functions)


def list_functions(request: Request) -> View:
    """Return the thirty functions by subsystem."""
    session = _session(request)
    index = function_index(session.functions, session.example_calls())
    return {"module": MODULE, "subsystems": index}


def call_function(request: Request) -> View:
    """Call a function; an exception that it raises is an ordinary response."""
    session, name = _session(request), request.matchdict["name"]
    if name not in session.functions:
        raise ApiError("unknown-function", f"the module has no function {name}")
    body = _body(request, arguments=_optional(list), keywords=_optional(dict))
    positional, keywords = decode_call(body)
    # The function may change its arguments.
    expression = code_examples.python(name, positional, keywords)
    call = session.call(name, positional, keywords)
    test = code_examples.pytest(expression, name, call.call_log, call.result, call.exception)
    token = request.registry.settings["console.token"] is not None
    outcome = "result" if call.exception is None else "exception"
    return {
        "function": name,
        outcome: getattr(call, outcome),
        "source": call_log.describe_source(name, call.call_log),
        "microseconds": round(call.seconds * 1e6, 1),
        "call_log": [serialization.encode_native_call(entry) for entry in call.call_log],
        "log": [record._asdict() for record in call.log],
        "code": {
            "python": expression,
            "pytest": test,
            "curl": code_examples.curl(request.path_url, body, token),
        },
        **({"simulator_error": call.simulator_error} if call.simulator_error else {}),
    }


def parse(request: Request) -> View:
    """Run a parser on command output."""
    kind = request.matchdict["kind"]
    if kind not in (*parse_capture.PARSERS, _AUTO):
        expected = ", ".join([*parse_capture.PARSERS, _AUTO])
        raise ApiError("unknown-resource", f"unknown parser, expected one of {expected}")
    text = _body(request, text=str)["text"]
    try:
        content = encode_utf8(text)
    except ValueError as error:
        raise ApiError("invalid-member", str(error), at="text") from error
    scenario_store.check_size({"the text": content})
    if kind == _AUTO:
        kind = parse_capture.recognize(content)
    if kind is None:
        headers = ", ".join(parser.header.decode() for parser in parse_capture.PARSERS.values())
        raise ApiError("unrecognized-text", f"no line begins with one of {headers}")
    parsed, origins = _session(request).parse(kind, content)
    view: View = {"kind": kind, "lines": text.partition("\0")[0].split("\n")}
    if parsed.end is not None:
        view["note"] = f"the text ends at its first NUL byte, offset {parsed.end}"
    if parsed.error is not None:
        exception = serialization.encode_exception(parsed.error, parse_capture.__file__)
        view["exception"] = {**exception, "line": parsed.line, "detail": parsed.problem}
        return view
    if origins is None:
        limits = f"{parse_capture.MAX_LINES} lines or {parse_capture.MAX_SECONDS:g} seconds"
        view["note"] = f"the text takes more than {limits}: origins are not traced"
    return {
        **view,
        "result": serialization.encode_result(parsed.result),
        "origins": [{"line": line, "values": paths} for line, paths in (origins or {}).items()],
        "skipped": parsed.skipped,
    }


def list_scenarios(request: Request) -> View:
    """Return the scenarios and the state of the current one."""
    return _session(request).scenarios()


def get_current_scenario(request: Request) -> View:
    """Return the loaded scenario with its unsaved changes."""
    return _session(request).current()


def put_current_scenario(request: Request) -> View:
    """Load a scenario, or none for a null name."""
    _session(request).load(_body(request, name=(str, type(None)))["name"])
    return list_scenarios(request)


def get_scenario(request: Request) -> View:
    """Return the files of a scenario."""
    return _session(request).scenario(request.matchdict["name"])


def put_scenario(request: Request) -> View:
    """Save the current replies under a name."""
    body = _body(request, overwrite=_optional(list))
    _session(request).save(request.matchdict["name"], body.get("overwrite", ()))
    return list_scenarios(request)


def delete_scenario(request: Request) -> View:
    """Move a scenario into the trash."""
    _session(request).delete(request.matchdict["name"])
    return list_scenarios(request)


def rename_scenario(request: Request) -> View:
    """Rename a scenario."""
    _session(request).rename(request.matchdict["name"], _body(request, to=str)["to"])
    return list_scenarios(request)


def duplicate_scenario(request: Request) -> View:
    """Copy a scenario."""
    _session(request).duplicate(request.matchdict["name"], _body(request, to=str)["to"])
    return list_scenarios(request)


def get_archive(request: Request) -> Response:
    """Return a scenario as an archive."""
    name = request.matchdict["name"]
    response = Response(body=_session(request).export(name), content_type=_ARCHIVE)
    file = re.sub(r"[^A-Za-z0-9._-]", "_", name)  # the directory of --scenario may have any name
    response.content_disposition = f'attachment; filename="{file}.zip"'
    return response


def put_archive(request: Request) -> View:
    """Create a scenario from an archive."""
    _check_media_type(request, _ARCHIVE)
    _session(request).import_(request.matchdict["name"], request.body)
    return list_scenarios(request)


def list_replies(request: Request) -> View:
    """Return every service and command with the source of its reply."""
    return {"replies": _session(request).replies()}


def get_reply(request: Request) -> View:
    """Return the text of one reply."""
    return _session(request).reply(request.matchdict["name"])


def put_reply(request: Request) -> View:
    """Override one reply."""
    body = _body(request, text=str, base=_optional(str, type(None)))
    base = [body["base"]] if "base" in body else []
    _session(request).set_reply(request.matchdict["name"], body["text"], *base)
    return get_reply(request)


def delete_reply(request: Request) -> View:
    """Remove the override of one reply."""
    _session(request).set_reply(request.matchdict["name"], None)
    return get_reply(request)


def _session(request: Request) -> Session:
    session: Session = request.registry["session"]
    return session


class _Optional(tuple[type, ...]):
    """The types of a member that may be missing."""


def _optional(*types: type) -> _Optional:
    return _Optional(types)


# How an error names the types of members.
_TYPE_NAMES = {str: "a string", list: "a list", dict: "an object", type(None): "null"}


def _check_media_type(request: Request, expected: str) -> None:
    if request.content_type.lower() != expected:
        raise ApiError("media-type", f"send the body as Content-Type: {expected}")


def _body(request: Request, **members: Any) -> dict[str, Any]:
    """Return the JSON object of a request; `members` are the types of the members it may have."""
    _check_media_type(request, "application/json")
    try:
        body = strict_json.loads(request.body.decode("utf-8"), parse_integer)
    except UnicodeDecodeError as error:
        raise ApiError("body-not-json", "the body is not UTF-8") from error
    except json.JSONDecodeError as error:
        place = {"line": error.lineno, "column": error.colno}
        raise ApiError("body-not-json", f"the body is not JSON: {error.msg}", **place) from error
    except (ValueError, RecursionError) as error:
        raise ApiError("body-not-json", f"the body is not JSON: {error}") from error
    if not isinstance(body, dict):
        raise ApiError("body-not-json", "the body must be a JSON object")
    for key in body.keys() - members.keys():
        expected = ", ".join(f'"{member}"' for member in members)
        raise ApiError("invalid-member", f"unknown member, expected {expected}", at=key)
    for key, types in members.items():
        kinds = types if isinstance(types, tuple) else (types,)
        missing = key not in body
        if missing and isinstance(types, _Optional):
            continue
        if missing or not isinstance(body[key], kinds):
            names = " or ".join(_TYPE_NAMES[kind] for kind in kinds)
            raise ApiError("invalid-member", f'"{key}" must be {names}', at=key)
    return body
