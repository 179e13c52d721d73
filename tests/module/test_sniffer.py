"""Sniffer profiles: the event that chooses which native function controls a capture."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import pytest

from tests.support import isolated
from tests.support.assertions import FILE
from tests.support.fake_siblings import create_module, exec_module
from tests.support.isolated import WRONG_PYTHON_MODULE, encode_exception
from tests.support.query_cases import native_calls, without_releases
from veldarin_simulator import RawJSON, Simulator

EVENTS = [
    ("Running", "build_start_sniffer_profile_capture"),
    ("Stop", "build_stop_sniffer_profile_capture"),
    ("Pause", "build_pause_sniffer_profile_capture"),
    ("Delete", "build_delete_sniffer_profile_capture"),
]


@pytest.mark.parametrize("event, native", EVENTS)
def test_event_calls_its_service_only(
    simulator: Simulator, module: ModuleType, event: str, native: str
) -> None:
    for _event, each in EVENTS:
        simulator.set_reply(each, {"reply of": each})
    copied = "".join(list(event))  # equal, not the same object
    call = module.capture_sniffer_profile
    for result in (
        call("p1", copied),
        call("p1", event=copied),
        call(event=copied, profile_name="p1"),
    ):
        assert result == {"reply of": native}
    assert without_releases(simulator) == [(native, {"profile-name": "p1"})] * 3


@pytest.mark.parametrize(
    "event",
    [
        None,
        "",
        "running",
        "RUNNING",
        "Start",
        "Stop ",
        " Stop",
        "Stopp",
        "Sto",
        "pause",
        "Delete\0",
        "Running\u0301",
        "P\u0430use",  # a Cyrillic letter
    ],
    ids=repr,
)
def test_unknown_event_returns_untouched_response(
    simulator: Simulator, module: ModuleType, event: str | None
) -> None:
    assert module.capture_sniffer_profile("p1", event) is None
    simulator.default_response = RawJSON('{"x": 1}')
    assert module.capture_sniffer_profile("p1", event) == {"x": 1}
    assert without_releases(simulator) == []
    assert native_calls(simulator)[-2:] == [
        ("JSONObject.release", {"profile-name": "p1"}),
        ("JSONObject.release", {"x": 1}),
    ]


def failing_comparison(number: int) -> dict[str, Any]:
    """Calls `capture_sniffer_profile` while the comparison of this number fails."""
    import os

    from veldarin_simulator import Simulator

    os.environ["SEEMING_VERSION"] = "3.9.0"
    with Simulator(live=False) as simulator:
        module = create_module(path=WRONG_PYTHON_MODULE)
        exec_module(module)
        os.environ["FAILING_COMPARISON"] = str(number)
        try:
            module.capture_sniffer_profile("p1", "Other")
        except MemoryError as error:
            entries = encode_exception(error)["entries"]
            return {"entries": entries, "calls": [call.service for call in simulator.call_log]}
    return {}


@pytest.mark.parametrize("number, source_line", [(1, 365), (2, 367), (3, 369), (4, 371)])
def test_event_comparison_error_is_at_its_line(number: int, source_line: int) -> None:
    seen = isolated.value(failing_comparison, number)
    (_caller, found) = seen["entries"]
    assert found[:4] == [f"{isolated.MODULE}.capture_sniffer_profile", FILE, 361, source_line]
    assert seen["calls"] == []


def test_unknown_event_is_compared_four_times() -> None:
    assert isolated.value(failing_comparison, 5) == {}


@pytest.mark.parametrize("profile", [None, "", "p1", "caf\u00e9"])
def test_profile_name_is_sent_under_hyphenated_key(
    simulator: Simulator, module: ModuleType, profile: str | None
) -> None:
    module.capture_sniffer_profile(profile, "Stop")
    assert without_releases(simulator) == [
        ("build_stop_sniffer_profile_capture", {"profile-name": profile})
    ]
