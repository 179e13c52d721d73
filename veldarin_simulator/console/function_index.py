"""What is told of the module's functions: by subsystem, with the texts of the Python face."""

from __future__ import annotations

import ast
import re
from typing import Any

from veldarin_simulator.console.serialization import escaped
from veldarin_simulator.stub import Function, Parameter

_PART = re.compile(r"^(Raises|Example):\n((?:    .*\n|\n)*)", re.MULTILINE)
_PROMPT = re.compile(r">>> (.*(?:\n\.\.\. .*)*)")


def catalogue(functions: dict[str, Function]) -> list[dict[str, Any]]:
    """The subsystems in the order of the face, each with its functions."""
    subsystems: dict[str, list[dict[str, Any]]] = {}
    for function in functions.values():
        subsystems.setdefault(function.subsystem, []).append(_function(function))
    return [{"title": title, "functions": held} for title, held in subsystems.items()]


def _function(function: Function) -> dict[str, Any]:
    text = function.docstring + "\n"
    parts = {
        name: "\n".join(line[4:] for line in lines.splitlines()).strip()
        for name, lines in _PART.findall(text)
    }
    summary, _, rest = _PART.sub("", text).strip().partition("\n")
    example = parts.get("Example", "")
    return {
        "name": function.name,
        "declaration": function.declaration,
        "summary": summary,
        "text": rest.strip(),
        "raises": parts.get("Raises", ""),
        "example": example,
        "parameters": [_parameter(parameter) for parameter in function.parameters],
        "try": _try(function.name, example),
    }


def _parameter(parameter: Parameter) -> dict[str, Any]:
    return {
        "name": parameter.name,
        "types": sorted(parameter.types),
        "keyword": parameter.keyword,
        "optional": parameter.optional,
    }


def _try(name: str, example: str) -> dict[str, Any]:
    """The arguments of the example's first call of the function, as a request has them."""
    for prompt in _PROMPT.findall(example):
        tree = ast.parse(re.sub(r"\n\.\.\. ", "\n", prompt))
        for node in ast.walk(tree):
            if isinstance(node, ast.Call) and ast.unparse(node.func) == name:
                return {
                    "arguments": [_given(argument) for argument in node.args],
                    "keywords": {str(word.arg): _given(word.value) for word in node.keywords},
                }
    return {"arguments": [], "keywords": {}}


def _given(node: ast.expr) -> Any:
    value = ast.literal_eval(node)  # of the face's own text
    if isinstance(value, bytes):
        return {"bytes": escaped(value)}
    return {"json": value} if isinstance(value, dict) else value
