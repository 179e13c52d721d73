"""Describes the module's functions for the page, from the type stub."""

from __future__ import annotations

import ast
import re
from typing import Any

from veldarin_simulator.console.serialization import encode_bytes
from veldarin_simulator.stub import Function

_PROMPT = re.compile(r">>> (.*(?:\n\.\.\. .*)*)")


def function_index(functions: dict[str, Function]) -> list[dict[str, Any]]:
    """Return the subsystems in the order of the stub, each with its functions."""
    subsystems: dict[str, list[dict[str, Any]]] = {}
    for function in functions.values():
        subsystems.setdefault(function.subsystem, []).append(_describe(function))
    return [{"title": title, "functions": listed} for title, listed in subsystems.items()]


def _describe(function: Function) -> dict[str, Any]:
    return {
        "name": function.name,
        "declaration": function.declaration,
        "summary": function.summary,
        "text": function.text.partition("\n")[2].strip(),
        "raises": function.raises,
        "example": function.example,
        "parameters": [
            {
                "name": parameter.name,
                "types": sorted(parameter.types),
                "keyword": parameter.keyword,
                "optional": parameter.optional,
            }
            for parameter in function.parameters
        ],
        "example_call": _example_call(function.name, function.example),
    }


def _example_call(name: str, example: str) -> dict[str, Any]:
    """Return the arguments of the example's first call, as the body of a request."""
    for prompt in _PROMPT.findall(example):
        for node in ast.walk(ast.parse(re.sub(r"\n\.\.\. ", "\n", prompt))):
            if isinstance(node, ast.Call) and ast.unparse(node.func) == name:
                return {
                    "arguments": [_encode_argument(argument) for argument in node.args],
                    "keywords": {str(k.arg): _encode_argument(k.value) for k in node.keywords},
                }
    return {"arguments": [], "keywords": {}}


def _encode_argument(node: ast.expr) -> Any:
    value = ast.literal_eval(node)  # the stub's own text, never a request's
    if isinstance(value, bytes):
        return {"bytes": encode_bytes(value)}
    return {"json": value} if isinstance(value, dict) else value
