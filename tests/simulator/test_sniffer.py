"""TODO"""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

import pytest

from veldarin_simulator import Scenario, Simulator


def test_capture_state_follows_events() -> None:
    with Simulator(live=True) as simulator:
        module = simulator.module

        def state_of(name: str) -> tuple[Any, Any]:
            (row,) = (
                row
                for row in module.get_system_sniffer_profile_summary()
                if row["profile-name"] == name
            )
            return row["state"], row["packets"]

        assert state_of("lan-trace") == ("Stop", 214)
        for event, after in (
            ("Pause", "Stop"),  # nothing runs that could be held
            ("Running", "Running"),
            ("Pause", "Pause"),
            ("Running", "Running"),
            ("Stop", "Stop"),
        ):
            reply = module.capture_sniffer_profile("lan-trace", event)
            assert reply["result"] == ("done" if after == event else "refused")
            assert state_of("lan-trace") == (after, 214)
        module.capture_sniffer_profile("lan-trace", "Delete")
        assert state_of("lan-trace") == ("None", 0)
        assert module.capture_sniffer_profile("lan-trace", "Stop")["result"] == "refused"
        assert state_of("uplink-errors") == ("None", 0)
        for name in ("no such", "", None):
            assert module.capture_sniffer_profile(name, "Running") == {
                "profile-name": name,
                "result": "refused",
                "reason": "no such profile",
            }
    with Simulator(live=True) as simulator:  # a new device begins as recorded
        assert state_of("lan-trace") == ("Stop", 214)


def write(folder: Path, files: dict[str, Any]) -> Scenario:
    """Write a scenario directory and load it. Values that are not text are written as JSON."""
    for name, content in files.items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        if isinstance(content, str):
            content = content.encode()
        path.write_bytes(content if isinstance(content, bytes) else json.dumps(content).encode())
    return Scenario.load(folder)


def test_recorded_control_reply_replaces_the_state(tmp_path: Path) -> None:
    scenario = write(
        tmp_path / "mine",
        {
            "build_system_sniffer_profile_summary.json": [{"profile-name": "p", "state": "None"}],
            "build_stop_sniffer_profile_capture.json": {"code": 5},
        },
    )
    with Simulator(scenario=scenario) as simulator:
        module = simulator.module
        assert module.capture_sniffer_profile("p", "Stop") == {"code": 5}
        assert module.capture_sniffer_profile("p", "Running")["state"] == "Running"
        assert module.get_system_sniffer_profile_summary() == [
            {"profile-name": "p", "state": "Running"}
        ]


@pytest.mark.parametrize("summary", [None, {}, "text", 5, [], [1, None], [{"profile-name": 5}]])
def test_summary_of_another_form_is_returned_as_is(tmp_path: Path, summary: Any) -> None:
    files = {"build_system_sniffer_profile_summary.json": json.dumps(summary)}
    with Simulator(scenario=write(tmp_path / "mine", files), live=False) as simulator:
        assert simulator.module.get_system_sniffer_profile_summary() == summary
        assert simulator.module.capture_sniffer_profile("p", "Running")["result"] == "refused"
