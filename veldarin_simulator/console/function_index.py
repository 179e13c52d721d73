"""Describes the module's functions for the page, from the type stub."""

from __future__ import annotations

from typing import Any

from veldarin_simulator.console.serialization import encode_bytes
from veldarin_simulator.stub import Function

Arguments = tuple[list[Any], dict[str, Any]]


def function_index(
    functions: dict[str, Function], examples: dict[str, Arguments]
) -> list[dict[str, Any]]:
    """Return the subsystems in the order of the stub, each with its functions.

    Args:
        functions: The functions.
        examples: Arguments to show in place of those in the stub's example.
    """
    subsystems: dict[str, list[dict[str, Any]]] = {}
    for function in functions.values():
        subsystems.setdefault(function.subsystem, []).append(
            _describe(function, examples.get(function.name) or function.example_call())
        )
    return [{"title": title, "functions": listed} for title, listed in subsystems.items()]


def _describe(function: Function, example: Arguments) -> dict[str, Any]:
    positional, keywords = example
    return {
        "name": function.name,
        "declaration": function.declaration,
        "summary": function.summary,
        "text": function.text.partition("\n")[2].strip(),
        "args": function.args,
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
        "example_call": {
            "arguments": [_encode_argument(value) for value in positional],
            "keywords": {name: _encode_argument(value) for name, value in keywords.items()},
        },
    }


def _encode_argument(value: Any) -> Any:
    if isinstance(value, bytes):
        return {"bytes": encode_bytes(value)}
    return {"json": value} if isinstance(value, dict) else value
