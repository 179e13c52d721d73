"""Scenarios as values, and the replacement of the scenario of a running simulator."""

from __future__ import annotations

from pathlib import Path

import pytest

from veldarin_simulator import Scenario, ScenarioError, Simulator

LG_STATE = "build_switch_lg_state.json"
ARP = "cli/get system arp.txt"
TRACE = b'[{"profile-name": "p", "state": "None"}]'


def test_with_reply_returns_a_changed_copy() -> None:
    empty = Scenario()
    one = empty.with_reply(LG_STATE, b"[1]")
    assert (dict(empty), dict(one)) == ({}, {LG_STATE: b"[1]"})
    assert one.with_reply(ARP, b"Address\n").commands == {b"get system arp": b"Address\n"}
    assert one.with_reply(LG_STATE, b"2").services == {"build_switch_lg_state": 2}
    assert one.with_reply(LG_STATE, None) == empty.with_reply(ARP, None) == empty


def test_an_invalid_reply_is_located() -> None:
    with pytest.raises(ScenarioError) as caught:
        Scenario().with_reply(LG_STATE, b'{\n"a" 1}')
    error = caught.value
    assert (error.path, error.line, error.column) == (Path(LG_STATE), 2, 5)
    assert str(error) == f"{LG_STATE}:2: {error.problem}"


@pytest.mark.parametrize(
    "name", ["", "x", ".json", "cli/", "cli/.x.txt", "cli/a/b.txt", "cli/../x.txt", "../x.json"]
)
def test_a_name_outside_the_scenario_is_rejected(name: str) -> None:
    with pytest.raises(ScenarioError):
        Scenario({name: b"[]"})


def test_a_saved_scenario_loads_as_the_same_value(tmp_path: Path) -> None:
    folder = tmp_path / "new" / "scenario"
    scenario = Scenario({LG_STATE: b"[1]", ARP: b"Address\r\n", "cli/%2fx \xff.txt": b""})
    scenario.save(folder)
    assert Scenario.load(folder) == scenario
    for kept in ("README.md", ".notes", "cli/README.md"):
        (folder / kept).write_text("mine")
    smaller = scenario.with_reply(ARP, None)
    smaller.save(folder)
    assert Scenario.load(folder) == smaller
    assert sorted(path.name for path in folder.rglob("*.md")) == ["README.md", "README.md"]


def test_a_file_name_that_is_not_utf8_names_a_command(tmp_path: Path) -> None:
    (tmp_path / "cli").mkdir()
    Path(str(tmp_path / "cli" / "get \udcff.txt")).write_bytes(b"text")
    assert Scenario.load(tmp_path).commands == {b"get \xff": b"text"}


def test_use_scenario_sets_only_the_replies_that_differ(built: None) -> None:
    first = Scenario(
        {LG_STATE: b"1", "build_system_sniffer_profile_summary.json": TRACE, ARP: b"one"}
    )
    with Simulator(first, live=False) as simulator:
        module = simulator.module
        assert simulator.scenario == first
        module.capture_sniffer_profile("p", "Running")
        simulator.set_reply("aps_get_new_cookie_id", 7)
        simulator.use_scenario(first.with_reply(LG_STATE, b"true"))
        assert module.list_switch_lg_state() is True
        assert module.new_cookie_id() == 7
        assert module.get_system_sniffer_profile_summary()[0]["state"] == "Running"
        assert module.get_cli_command_output("get system arp") == "one"
        assert len(simulator.call_log) > 1

        simulator.use_scenario(simulator.scenario.with_reply(ARP, b"two"))
        assert module.get_cli_command_output("get system arp") == "two"
        assert module.get_system_sniffer_profile_summary()[0]["state"] == "Running"

        simulator.use_scenario(Scenario())
        assert module.list_switch_lg_state() is None
        assert simulator.source("build_switch_lg_state") == "none"
        assert module.get_system_sniffer_profile_summary() is None
        with pytest.raises(module.CFunctionError):
            module.get_cli_command_output("get system arp")


def test_a_reply_without_scenario_falls_back_to_the_machine(built: None) -> None:
    serial = "serial_number_ascii"
    with Simulator() as simulator:
        module, own = simulator.module, simulator.serial_number
        module.capture_sniffer_profile("lan-trace", "Running")
        simulator.use_scenario(Scenario({f"{serial}.json": b'"mine"', LG_STATE: b"{}"}))
        assert (simulator.serial_number, simulator.source(serial)) == (b"mine", "recorded")
        simulator.use_scenario(Scenario())
        assert (simulator.serial_number, simulator.source(serial)) == (own, "live")
        assert module.list_switch_lg_state() != {}
        assert simulator.source("build_switch_lg_state") == "recorded"
        assert module.get_system_sniffer_profile_summary()[0]["state"] == "Running"


def test_a_new_profile_list_resets_the_captures(built: None) -> None:
    summary = "build_system_sniffer_profile_summary.json"
    with Simulator(Scenario({summary: TRACE}), live=False) as simulator:
        module = simulator.module
        module.capture_sniffer_profile("p", "Running")
        simulator.use_scenario(simulator.scenario.with_reply(summary, TRACE + b"\n"))
        assert module.get_system_sniffer_profile_summary()[0]["state"] == "None"
        assert module.capture_sniffer_profile("p", "Running")["result"] == "done"
        assert module.get_system_sniffer_profile_summary()[0]["state"] == "Running"


def test_reset_reply_undoes_set_reply(built: None) -> None:
    with Simulator(Scenario({LG_STATE: b"1"}), live=False) as simulator:
        number = simulator.module.new_cookie_id
        simulator.set_reply("build_switch_lg_state", 2)
        simulator.set_fixed_reply("aps_get_new_cookie_id", 5)
        assert (simulator.module.list_switch_lg_state(), number()) == (2, 5)
        provided = simulator.provided_reply("build_switch_lg_state")
        assert provided is not None
        assert (provided.reply, provided.source) == (1, "recorded")
        simulator.set_reply("serial_number_ascii", b"other")
        for service in ("build_switch_lg_state", "aps_get_new_cookie_id", "serial_number_ascii"):
            simulator.reset_reply(service)
        assert (simulator.module.list_switch_lg_state(), number()) == (1, 0)
        assert simulator.serial_number != b"other"
        with pytest.raises(ValueError, match="no native service"):
            simulator.reset_reply("no_such_service")
