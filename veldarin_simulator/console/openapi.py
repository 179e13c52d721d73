"""Describes the HTTP interface as OpenAPI 3.1, from the routes and the type stub.

Each function has a path of its own, with the types of its parameters.
"""

from __future__ import annotations

import re
from collections.abc import Iterable
from typing import Any

from veldarin_simulator.console import scenario_store
from veldarin_simulator.console.errors import CONTENT_TYPE, PROBLEMS
from veldarin_simulator.parse_capture import PARSERS
from veldarin_simulator.stub import Function, Parameter

Schema = dict[str, Any]

# The parameter in a path, by the part before it.
_PATH_PARAMETERS: dict[str, Schema] = {
    "functions": {"type": "string"},
    "parse": {"enum": [*PARSERS, "auto"]},
    "scenarios": {"type": "string", "pattern": f"^{scenario_store.NAME}$"},
    "replies": {"type": "string", "minLength": 1},
}
_CALL_PATH = "/api/functions/{name}"


def _object(*optional: str, **members: Any) -> Schema:
    """Return the schema of an object, of which some members are optional."""
    required = [name for name in members if name not in optional]
    schema = {"type": "object", "properties": members, "additionalProperties": False}
    return {**schema, **({"required": required} if required else {})}


def _list(items: Schema) -> Schema:
    return {"type": "array", "items": items}


def _ref(name: str) -> Schema:
    return {"$ref": f"#/components/schemas/{name}"}


_TEXT: Schema = {"type": "string"}
_NUMBER: Schema = {"type": "number"}
_COUNT: Schema = {"type": "integer", "minimum": 0}
_FLAG: Schema = {"type": "boolean"}
_ANY: Schema = {}
_NAME_OR_NULL: Schema = {"type": ["string", "null"]}
_FILES = _list(_object(name=_TEXT, bytes=_COUNT))
_VALUE = _object(type=_TEXT, repr=_TEXT, value=_ANY)
_EXCEPTION = _object(
    "line",
    "detail",
    type=_TEXT,
    module=_TEXT,
    message=_TEXT,
    traceback=_list(_object(function=_TEXT, file=_TEXT, line=_COUNT)),
    text=_TEXT,
    line={"type": ["integer", "null"]},
    detail=_TEXT,
)
_ENTRY = _object(
    "json",
    "bytes",
    "hex",
    "reply",
    service=_TEXT,
    source=_TEXT,
    kind={"enum": ["request", "command", "text", "plain", "method"]},
    json=_TEXT,
    bytes=_TEXT,
    hex=_TEXT,
    reply=_object(name=_TEXT, text=_TEXT),
)
_PARAMETER = _object(name=_TEXT, types=_list(_TEXT), keyword=_FLAG, optional=_FLAG)
_EXAMPLE = _object(arguments=_list(_ANY), keywords={"type": "object"})
_FUNCTION = _object(
    **dict.fromkeys(("name", "declaration", "summary", "text", "args", "raises", "example"), _TEXT),
    parameters=_list(_PARAMETER),
    example_call=_EXAMPLE,
)

SCHEMAS: dict[str, Schema] = {
    "Object": {"type": "object"},
    "Archive": {"type": "string", "contentMediaType": "application/zip"},
    "Problem": {
        **_object(
            type={"enum": [f"/problems/{name}" for name in PROBLEMS]},
            title=_TEXT,
            status=_COUNT,
            detail=_TEXT,
        ),
        "additionalProperties": True,
    },
    "Status": _object(
        revision=_COUNT,
        running={"anyOf": [{"type": "null"}, _object(function=_TEXT, seconds=_NUMBER)]},
        scenario=_NAME_OR_NULL,
        modified=_FLAG,
    ),
    "Functions": _object(
        module=_TEXT, subsystems=_list(_object(title=_TEXT, functions=_list(_FUNCTION)))
    ),
    "Call": _object(
        "result",
        "exception",
        "simulator_error",
        function=_TEXT,
        result=_VALUE,
        exception=_EXCEPTION,
        source=_TEXT,
        microseconds=_NUMBER,
        call_log=_list(_ENTRY),
        log=_list(_object(logger=_TEXT, level=_TEXT, message=_TEXT)),
        code=_object(python=_TEXT, pytest=_TEXT, curl=_TEXT),
        simulator_error=_TEXT,
    ),
    "Text": _object(text=_TEXT),
    "Parsed": _object(
        "result",
        "exception",
        "origins",
        "skipped",
        "note",
        kind={"enum": list(PARSERS)},
        lines=_list(_TEXT),
        result=_VALUE,
        exception=_EXCEPTION,
        origins=_list(_object(line=_COUNT, values=_list(_list({"type": ["string", "integer"]})))),
        skipped=_list(_TEXT),
        note=_TEXT,
    ),
    "Scenarios": _object(
        loaded=_NAME_OR_NULL,
        directory=_NAME_OR_NULL,
        store=_TEXT,
        modified=_FLAG,
        scenarios=_list(_TEXT),
    ),
    "Current": _object(
        name=_NAME_OR_NULL,
        directory=_NAME_OR_NULL,
        modified=_FLAG,
        changed=_list(_TEXT),
        files=_FILES,
    ),
    "Scenario": _object(name=_TEXT, directory=_TEXT, fixed=_FLAG, files=_FILES),
    "Load": _object(name=_NAME_OR_NULL),
    "Save": _object("overwrite", overwrite=_list(_TEXT)),
    "To": _object(to=_TEXT),
    "Replies": _object(
        replies=_list(
            _object(
                name=_TEXT,
                command=_FLAG,
                file=_TEXT,
                overridden=_FLAG,
                modified=_FLAG,
                source=_NAME_OR_NULL,
            )
        )
    ),
    "Reply": _object(name=_TEXT, overridden=_FLAG, file=_TEXT, text=_TEXT, version=_NAME_OR_NULL),
    "NewReply": _object("base", text=_TEXT, base=_NAME_OR_NULL),
}

# The forms of an argument: `arguments` decodes them.
_ENCODINGS = {
    "bytes": _object(bytes=_TEXT),
    "hex": _object(hex=_TEXT),
    "base64": _object(base64=_TEXT),
    "integer": _object(integer={"type": ["string", "integer"]}),
    "text": _object(text=_TEXT),
    "json": _object(json=_ANY),
}
_BY_TYPE: dict[str, list[Schema]] = {
    "bytes": [_ENCODINGS["bytes"], _ENCODINGS["hex"], _ENCODINGS["base64"]],
    "str": [_TEXT, _ENCODINGS["text"]],
    "int": [{"type": "integer"}, _ENCODINGS["integer"]],
}
_ANY_ARGUMENT: Schema = {
    "anyOf": [
        {"type": ["string", "number", "boolean", "null", "array"]},
        *_ENCODINGS.values(),
    ]
}


def describe(routes: Iterable[Any], functions: dict[str, Function]) -> dict[str, Any]:
    """Return the description of the routes (`app.ROUTES`)."""
    paths: dict[str, dict[str, Any]] = {}
    for route in routes:
        path = re.sub(r":[^}]*\}", "}", route.path)
        if path == _CALL_PATH:
            for function in functions.values():
                operation = _operation(route, path, _arguments(function))
                operation.update(summary=function.summary, operationId=function.name)
                operation["description"] = function.docstring.partition("\n")[2].strip()
                del operation["parameters"]
                paths[path.replace("{name}", function.name)] = {"post": operation}
        else:
            request = None if route.request is None else _ref(route.request)
            operation = _operation(route, path, request)
            paths.setdefault(path, {})[route.method.lower()] = operation
    return {
        "openapi": "3.1.0",
        "info": {"title": "Console of the simulator", "version": "1"},
        "paths": paths,
        "components": {"schemas": SCHEMAS},
    }


def _operation(route: Any, path: str, request: Schema | None) -> dict[str, Any]:
    folder = path.split("/")[2]
    operation: dict[str, Any] = {
        "operationId": route.view.__name__,
        "summary": route.view.__doc__.partition("\n")[0],
        "parameters": [
            {"name": name, "in": "path", "required": True, "schema": _PATH_PARAMETERS[folder]}
            for name in re.findall(r"\{(\w+)\}", path)
        ],
        "responses": {
            "200": {"description": "Done.", "content": _content(route.response)},
            "default": {
                "description": "Rejected.",
                "content": {CONTENT_TYPE: {"schema": _ref("Problem")}},
            },
        },
    }
    if request is not None:
        content = _content(route.request, request)
        operation["requestBody"] = {"required": True, "content": content}
    return operation


def _content(name: str, schema: Schema | None = None) -> dict[str, Any]:
    kind = "application/zip" if name == "Archive" else "application/json"
    return {kind: {"schema": schema or _ref(name)}}


def _arguments(function: Function) -> Schema:
    parameters = function.parameters
    keywords = {p.name: _argument(p) for p in parameters if p.keyword}
    return _object(
        "arguments",
        "keywords",
        arguments={
            "type": "array",
            "prefixItems": [_argument(parameter) for parameter in parameters],
            "maxItems": len(parameters),
        },
        keywords={"type": "object", "properties": keywords, "additionalProperties": False},
    )


def _argument(parameter: Parameter) -> Schema:
    """Return the forms that the declared type allows; None is the caller's to try."""
    forms = [form for name in sorted(parameter.types) for form in _BY_TYPE.get(name, [])]
    return {"anyOf": [{"type": "null"}, *forms]} if forms else _ANY_ARGUMENT
