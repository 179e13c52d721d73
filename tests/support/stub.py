"""The functions of the module's type stub in order, for parametrized tests."""

from __future__ import annotations

import pytest

from veldarin_simulator import stub

STUB = stub.load()
NAMED = STUB.functions
FUNCTIONS = [*NAMED.values()]

every_function = pytest.mark.parametrize("function", FUNCTIONS, ids=lambda row: row.name)
