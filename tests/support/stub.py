"""The module's type stub, read for tests: its functions in order, with their docstrings."""

from __future__ import annotations

from typing import NamedTuple

import pytest

from veldarin_simulator import stub

STUB = stub.load()


class Parameter(NamedTuple):
    """A parameter; `type` is "bytes" or "str" if it must be one, `default` None if required."""

    name: str
    type: str | None
    default: str | None


class Function(NamedTuple):
    """A function of the stub or the function table; the table has `kind`, the stub `result`."""

    name: str
    kind: str
    parameters: list[Parameter]
    result: str = ""


def docstrings() -> dict[str, str]:
    return {name: function.docstring for name, function in STUB.functions.items()}


def _function(declared: stub.Function) -> Function:
    keyword = {parameter.keyword for parameter in declared.parameters}
    assert len(keyword) < 2
    kind = "keywords" if True in keyword else "one_arg" if keyword else "no_args"
    parameters = [
        Parameter(p.name, next(iter(p.types)) if p.types <= {"bytes", "str"} else None, p.default)
        for p in declared.parameters
    ]
    return Function(declared.name, kind, parameters, declared.result)


FUNCTIONS = [_function(declared) for declared in STUB.functions.values()]
NAMED = {function.name: function for function in FUNCTIONS}

every_function = pytest.mark.parametrize("function", FUNCTIONS, ids=lambda row: row.name)
