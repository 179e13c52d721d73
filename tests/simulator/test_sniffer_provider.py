"""Control of packet captures."""

from __future__ import annotations

import json
from typing import Any

import pytest

from veldarin_simulator import Scenario, Simulator


def test_capture_state_follows_events() -> None:
    with Simulator(live=True) as simulator:
        module = simulator.module

        def state_of(name: str) -> tuple[Any, Any]:
            rows = module.get_system_sniffer_profile_summary()
            (row,) = (row for row in rows if row["profile-name"] == name)
            return row["state"], row["packets"]

        assert state_of("lan-trace") == ("Stop", 214)
        for event, after in (
            ("Pause", "Stop"),  # no capture is running
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
    with Simulator(live=True) as simulator:  # starts as recorded
        assert state_of("lan-trace") == ("Stop", 214)


SUMMARY = "build_system_sniffer_profile_summary.json"


def test_recorded_control_reply_replaces_the_state() -> None:
    files = {
        SUMMARY: b'[{"profile-name": "p", "state": "None"}]',
        "build_stop_sniffer_profile_capture.json": b'{"code": 5}',
    }
    with Simulator(Scenario(files)) as simulator:
        module = simulator.module
        assert module.capture_sniffer_profile("p", "Stop") == {"code": 5}
        assert module.capture_sniffer_profile("p", "Running")["state"] == "Running"
        running = {"profile-name": "p", "state": "Running"}
        assert module.get_system_sniffer_profile_summary() == [running]


@pytest.mark.parametrize("summary", [None, {}, "text", 5, [], [1, None], [{"profile-name": 5}]])
def test_summary_of_another_form_is_returned_as_is(summary: Any) -> None:
    with Simulator(Scenario({SUMMARY: json.dumps(summary).encode()}), live=False) as simulator:
        assert simulator.module.get_system_sniffer_profile_summary() == summary
        assert simulator.module.capture_sniffer_profile("p", "Running")["result"] == "refused"
