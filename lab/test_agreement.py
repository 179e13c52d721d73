"""In every state of the network the module says what the system itself says, of every node."""

from __future__ import annotations

from collections.abc import Callable

import pytest

from lab import topology, values
from lab.checks import CHECKS, Check
from lab.states import Lab


@pytest.mark.parametrize("node", topology.NODES)
@pytest.mark.parametrize("check", CHECKS, ids=lambda check: check.name)
def test_the_module_says_what_the_system_says(
    state: str, check: Check, node: str, lab: Lab, record_property: Callable[[str, object], None]
) -> None:
    compared = check.compare(lab.nodes[node])
    for name, value in {
        "state": state,
        "check": check.name,
        "function": check.function,
        "oracle": check.oracle,
        "node": node,
        "values": values.count(compared.expected),
    }.items():
        record_property(name, value)
    assert values.count(compared.expected) > 0
    assert compared.said == compared.expected
