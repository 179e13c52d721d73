"""The module's Python face, read for tests: what it declares, in order, with its docstrings."""

from __future__ import annotations

import ast
from collections.abc import Iterator
from functools import cache
from typing import NamedTuple

import pytest

from tools import generate_function_docs

FACE = generate_function_docs.FACE


class Parameter(NamedTuple):
    """A parameter; `type` is "bytes" or "str" if it is held to one, `default` None if required."""

    name: str
    type: str | None
    default: str | None


class Function(NamedTuple):
    """A function of the face or the table; `kind` as the table says it, `result` as the face."""

    name: str
    kind: str
    parameters: list[Parameter]
    result: str = ""


@cache
def declarations() -> ast.Module:
    return ast.parse(FACE.read_text())


@cache
def docstrings() -> dict[str, str]:
    found = (node for node in declarations().body if isinstance(node, ast.FunctionDef))
    return {node.name: ast.get_docstring(node) or "" for node in found}


def declared_parameters(arguments: ast.arguments) -> Iterator[Parameter]:
    every = [*arguments.posonlyargs, *arguments.args]
    defaults = [None] * (len(every) - len(arguments.defaults)) + arguments.defaults
    for argument, default in zip(every, defaults):
        assert argument.annotation is not None, argument.arg
        members = set(ast.unparse(argument.annotation).split(" | ")) - {"None"}
        (held_to,) = members if members <= {"bytes", "str"} else (None,)
        yield Parameter(argument.arg, held_to, ast.unparse(default) if default else None)


def declared(node: ast.FunctionDef) -> Function:
    arguments = node.args
    for unused in (arguments.vararg, arguments.kwonlyargs, arguments.kwarg):
        assert not unused
    assert not arguments.posonlyargs or not arguments.args
    kind = "one_arg" if arguments.posonlyargs else "keywords" if arguments.args else "no_args"
    assert node.returns is not None
    return Function(
        node.name, kind, list(declared_parameters(arguments)), ast.unparse(node.returns)
    )


FUNCTIONS = [declared(node) for node in declarations().body if isinstance(node, ast.FunctionDef)]
NAMED = {function.name: function for function in FUNCTIONS}

every_function = pytest.mark.parametrize("function", FUNCTIONS, ids=lambda row: row.name)
