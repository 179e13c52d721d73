"""The lab's fixtures, and a summary table of the comparisons."""

from __future__ import annotations

from collections.abc import Iterator
from functools import partial
from typing import Any

import pytest
from rich.console import Console
from rich.table import Table

from lab import daemons, host_snapshot, topology
from lab.network import skip_reason, wait_until
from lab.network_states import STATES, Lab

_WIDTH = 110
_ROW = ("state", "comparison", "function", "oracle")
_VERSIONS = pytest.StashKey[str]()


@pytest.fixture(scope="session")
def require_lab() -> None:
    """Skip tests that need namespaces and daemons, with the reason."""
    reason = skip_reason()
    if reason:
        pytest.skip(reason)


@pytest.fixture(scope="session")
def lab(require_lab: None, request: pytest.FixtureRequest) -> Iterator[Lab]:
    """The converged network. After its end, this machine must be unchanged."""
    before = host_snapshot.snapshot()
    with Lab() as lab:
        namespaces = {node.namespace for node in lab.nodes.values()}
        request.config.stash[_VERSIONS] = _versions(lab)
        yield lab
    wait_until(partial(host_snapshot.remaining_processes, namespaces))
    assert host_snapshot.snapshot() == before


@pytest.fixture(scope="session", params=STATES)
def state(request: pytest.FixtureRequest, lab: Lab) -> str:
    """Each state of the network in turn."""
    lab.transition_to(request.param)
    return str(request.param)


def _versions(lab: Lab) -> str:
    hub = lab.nodes["hub"]
    kernel = hub.run("uname", "-sr").strip()
    ip = hub.run("ip", "-V").split("-")[1].split(",")[0]
    return f"{daemons.version(hub)}, iproute2 {ip}, {kernel}"


def pytest_terminal_summary(terminalreporter: Any, config: pytest.Config) -> None:
    """Print a row for each comparison in each state, with the number of values for each node."""
    table = Table(box=None, header_style="bold")
    for column in _ROW:
        table.add_column(column, no_wrap=True)
    for column in topology.NODES:
        table.add_column(column, justify="right", no_wrap=True)
    for row, cells in _rows(terminalreporter).items():
        table.add_row(*row, *(cells.get(node, "") for node in topology.NODES))
    if table.row_count:
        terminalreporter.write_line(f"\n\n{config.stash[_VERSIONS]}; values compared:\n")
        Console(width=_WIDTH, markup=False).print(table)
        terminalreporter.write_line(f"\n{_unlisted_sessions()}")


def _unlisted_sessions() -> str:
    """Describe the sessions that `list_bfd_neighbor` omits, as its comparison expects."""
    kinds = [(row.node, row.version) for row in topology.SESSIONS]
    short = {kind: kinds.count(kind) - 1 for kind in kinds if kinds.count(kind) > 1}
    omitted = ", ".join(
        f"{node} {count} of version {version}" for (node, version), count in short.items()
    )
    return (
        "BFD list: the parser lists the first session of each IP version. It omits, as expected:\n"
        f"{omitted}. These are compared by the commands for each session."
    )


def _rows(terminalreporter: Any) -> dict[tuple[str, ...], dict[str, str]]:
    rows: dict[tuple[str, ...], dict[str, str]] = {}
    for outcome in ("passed", "failed"):
        for report in terminalreporter.stats.get(outcome, ()):
            properties = dict(getattr(report, "user_properties", ()))
            if "oracle" in properties and getattr(report, "when", "") == "call":
                row = tuple(properties[key] for key in _ROW)
                cell = str(properties["values"]) if outcome == "passed" else "DIFF"
                rows.setdefault(row, {})[properties["node"]] = cell
    order = {state: number for number, state in enumerate(STATES)}
    return dict(sorted(rows.items(), key=lambda row: order[row[0][0]]))
