"""The handlers: what is asked for and what is answered, a function for each row of `app.ROUTES`."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

from pyramid.response import Response

from veldarin_simulator import parse_capture
from veldarin_simulator.console import serialization
from veldarin_simulator.console.arguments import arguments
from veldarin_simulator.console.errors import Problem
from veldarin_simulator.console.function_index import catalogue
from veldarin_simulator.console.session import Bench
from veldarin_simulator.simulator import MODULE

_PAGE = Path(__file__).with_name("static") / "console.html"

# A request of the web framework, which has no types.
Request = Any
Shown = dict[str, Any]


def page(_request: Request) -> Response:
    """The page itself."""
    return Response(body=_PAGE.read_bytes(), content_type="text/html", charset="utf-8")


def functions(request: Request) -> Shown:
    """The thirty functions by subsystem."""
    return {"module": MODULE, "subsystems": catalogue(_bench(request).functions)}


def call(request: Request) -> Shown:
    """Calls a function. That it raises is an answer too."""
    bench, name = _bench(request), request.matchdict["name"]
    if name not in bench.functions:
        raise Problem(404, f"the module has no function {name}")
    positional, named = arguments(_body(request))
    called = bench.call(name, positional, named)
    outcome = {"result": called.result} if called.raised is None else {"raised": called.raised}
    return {
        "function": name,
        **outcome,
        "source": serialization.source(called.journal),
        "microseconds": round(called.seconds * 1e6, 1),
        "journal": [serialization.native_call(entry) for entry in called.journal],
        **({"failed_answers": called.failed_answers} if called.failed_answers else {}),
    }


def parse(request: Request) -> Shown:
    """Runs a captured text through a parser."""
    kind = parse_capture.PARSERS.get(request.matchdict["kind"])
    if kind is None:
        raise Problem(404, f"captures are of the kinds {', '.join(parse_capture.PARSERS)}")
    text = _text(_body(request), "text")
    try:
        content = text.encode()
    except UnicodeEncodeError as error:
        raise Problem(400, "half a surrogate pair is no character", at="text") from error
    outcome, origins = _bench(request).parse(kind, content)
    shown: Shown = {"lines": text.partition("\0")[0].split("\n")}
    if outcome.end is not None:
        shown["note"] = f"the text ends at its first NUL byte, offset {outcome.end}"
    if outcome.error is not None:
        place = {"line": outcome.line, "problem": outcome.problem}
        return {
            **shown,
            "raised": {**serialization.raised(outcome.error, parse_capture.__file__), **place},
        }
    if origins is None:
        shown["note"] = (
            f"values are told from lines in texts of up to {parse_capture.MAX_LINES} lines"
        )
    told = [{"line": line, "values": list(values)} for line, values in (origins or {}).items()]
    result = serialization.result(outcome.result)
    return {**shown, "result": result, "origins": told, "passed_over": outcome.skipped}


def scenarios(request: Request) -> Shown:
    """The scenarios there are, and the one in work."""
    return _bench(request).scenarios()


def load(request: Request) -> Shown:
    """Loads a scenario, null for none."""
    body = _body(request)
    _bench(request).load(None if body.get("name") is None else _text(body, "name"))
    return _bench(request).scenarios()


def save(request: Request) -> Shown:
    """Saves the answers in work."""
    _bench(request).save(_text(_body(request), "name"))
    return _bench(request).scenarios()


def answers(request: Request) -> Shown:
    """Every answer, and where it comes from."""
    return {"answers": _bench(request).answers()}


def answer(request: Request) -> Shown:
    """One answer's text."""
    return _bench(request).answer(request.matchdict["name"])


def take(request: Request) -> Shown:
    """Takes a text as an answer, null for none of the scenario's own."""
    body, name = _body(request), request.matchdict["name"]
    if "text" not in body:
        raise Problem(400, '"text" is a text, or null', at="text")
    _bench(request).take(name, None if body["text"] is None else _text(body, "text"))
    return _bench(request).answer(name)


def _bench(request: Request) -> Bench:
    bench: Bench = request.registry["bench"]
    return bench


def _body(request: Request) -> dict[str, Any]:
    try:
        body = json.loads(request.body.decode("utf-8"), parse_constant=_refuse)
    except UnicodeDecodeError as error:
        raise Problem(400, "the body is not UTF-8") from error
    except json.JSONDecodeError as error:
        where = {"line": error.lineno, "column": error.colno}
        raise Problem(400, f"the body is not JSON: {error.msg}", **where) from error
    except (ValueError, RecursionError) as error:
        raise Problem(400, f"the body is not JSON: {error}") from error
    if not isinstance(body, dict):
        raise Problem(400, "the body is a JSON object")
    return body


def _refuse(name: str) -> None:
    raise ValueError(f"{name} is no JSON number")


def _text(body: dict[str, Any], key: str) -> str:
    text = body.get(key)
    if not isinstance(text, str):
        raise Problem(400, f'"{key}" is a text', at=key)
    return text
