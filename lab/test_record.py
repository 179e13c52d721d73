"""Records each node with the simulator's tool, and replays the recordings outside the network."""

from __future__ import annotations

import json
import shlex
import sys
from pathlib import Path

import pytest

from lab import topology
from lab.network_states import BASELINE, Lab
from veldarin_simulator import Scenario, Simulator, record

_TOOL = (sys.executable, "-m", "veldarin_simulator", "record")


@pytest.mark.parametrize("redact", [(), ("--redact",)], ids=["plain", "redacted"])
@pytest.mark.parametrize("node", topology.NODES)
def test_recording_of_a_node_replays_elsewhere(
    lab: Lab, node: str, redact: tuple[str, ...], tmp_path: Path
) -> None:
    lab.transition_to(BASELINE)
    here = lab.nodes[node]
    folder = tmp_path / "recording"
    destinations = [
        entry["dst"].partition("/")[0]
        for version in ("-4", "-6")
        for entry in here.json("ip", "-j", version, "route")
        if entry["dst"] != "default"
    ]
    addresses = [text for address in destinations for text in ("--address", address)]
    # A route that the parser rejects fails, so that the exit status may be 1.
    command = shlex.join([*_TOOL, "--into", str(folder), "--quiet", *addresses, *redact])
    status, *failed = here.run("sh", "-c", f"{command} 2>&1; echo $?").splitlines()[::-1]
    failed = [line for line in failed if ": failed: " in line]
    assert status == ("1" if failed else "0")
    assert all("get_routing_table_result(" in line for line in failed), failed

    calls = [json.loads(line) for line in (folder / record.CALLS).read_text().splitlines()]
    functions = [call["function"] for call in calls]
    with Simulator(Scenario.load(folder), live=False) as simulator:
        outcomes = dict(record.replay(simulator.module, folder))
        with record.own_bfd_sessions(simulator.module):
            listed = simulator.module.list_bfd_neighbor()
        neighbors = simulator.module.get_system_arp_result()
    assert [call for call, equal in outcomes.items() if not equal] == []
    sessions = [row for row in topology.SESSIONS if row.node == node]
    # Both families' commands for the summary and for each session.
    assert functions.count("get_bfd_neighbor") == 2 * (1 + len(sessions))
    assert functions.count("get_routing_table_result") == len({*destinations})
    assert "list_bfd_neighbor" in functions
    if not redact:
        live = here.agent.call_live("list_bfd_neighbor")
        assert [session["name"] for session in listed] == [session["name"] for session in live]
        current = here.agent.call_live("get_system_arp_result")
        assert {(row["ipAddress"], row["mac"]) for row in neighbors} == {
            (row["ipAddress"], row["mac"]) for row in current
        }
    else:
        written = b"".join(path.read_bytes() for path in folder.rglob("*") if path.is_file())
        for link in topology.LINKS:
            for port in link:
                for address in (port.ipv4, port.ipv6):
                    assert address.partition("/")[0].encode() not in written
