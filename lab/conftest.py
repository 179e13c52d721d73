"""The lab's fixtures, and the table of what was compared that a person sees at the end."""

from __future__ import annotations

from collections.abc import Iterator
from functools import partial
from typing import Any

import pytest
from rich.console import Console
from rich.table import Table

from lab import daemons, host_snapshot, topology
from lab.network import wait_until, why_not
from lab.network_states import STATES, Lab

_WIDTH = 100
_VERSIONS = pytest.StashKey[str]()


@pytest.fixture(scope="session")
def possible() -> None:
    """Skips what needs namespaces and daemons, with the reason."""
    reason = why_not()
    if reason:
        pytest.skip(reason)


@pytest.fixture(scope="session")
def lab(possible: None, request: pytest.FixtureRequest) -> Iterator[Lab]:
    """The network, at rest. When it is taken down this machine is as it was."""
    before = host_snapshot.state()
    with Lab() as lab:
        namespaces = {node.namespace for node in lab.nodes.values()}
        request.config.stash[_VERSIONS] = _versions(lab)
        yield lab
    wait_until(partial(host_snapshot.left, namespaces))
    assert host_snapshot.state() == before


@pytest.fixture(scope="session", params=STATES)
def state(request: pytest.FixtureRequest, lab: Lab) -> str:
    """The states of the network, one after the other."""
    lab.come_to(request.param)
    return str(request.param)


def _versions(lab: Lab) -> str:
    hub = lab.nodes["hub"]
    kernel = hub.run("uname", "-sr").strip()
    ip = hub.run("ip", "-V").split("-")[1].split(",")[0]
    return f"{daemons.version(hub)}, iproute2 {ip}, {kernel}"


def pytest_terminal_summary(terminalreporter: Any, config: pytest.Config) -> None:
    """The table: a row for each comparison in each state, the number of values for each node."""
    table = Table(box=None, header_style="bold")
    for column in ("state", "what", "function", "compared with"):
        table.add_column(column, no_wrap=True)
    for column in topology.NODES:
        table.add_column(column, justify="right", no_wrap=True)
    for row, cells in _rows(terminalreporter).items():
        table.add_row(*row, *(cells.get(node, "") for node in topology.NODES))
    if table.row_count:
        terminalreporter.write_line(f"\n\n{config.stash[_VERSIONS]}; values compared:\n")
        Console(width=_WIDTH, markup=False).print(table)
        terminalreporter.write_line(f"\n{_unlisted()}")


def _unlisted() -> str:
    """What the listing leaves out, which its comparison expects."""
    kinds = [(row.node, row.version) for row in topology.SESSIONS]
    short = {kind: kinds.count(kind) - 1 for kind in kinds if kinds.count(kind) > 1}
    told = ", ".join(
        f"{node} {count} of version {version}" for (node, version), count in short.items()
    )
    return (
        "BFD listing: of several sessions of one IP version the parser lists the first; left out,\n"
        f"and compared by their own commands: {told}."
    )


def _rows(terminalreporter: Any) -> dict[tuple[str, ...], dict[str, str]]:
    rows: dict[tuple[str, ...], dict[str, str]] = {}
    for outcome in ("passed", "failed"):
        for report in terminalreporter.stats.get(outcome, ()):
            told = dict(getattr(report, "user_properties", ()))
            if "oracle" in told and getattr(report, "when", "") == "call":
                row = (told["state"], told["check"], told["function"], told["oracle"])
                cell = str(told["values"]) if outcome == "passed" else "DIFF"
                rows.setdefault(row, {})[told["node"]] = cell
    order = {state: number for number, state in enumerate(STATES)}
    return dict(sorted(rows.items(), key=lambda row: order[row[0][0]]))
