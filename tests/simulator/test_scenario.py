"""Scenarios, and the replacement of the scenario of a running simulator."""

from __future__ import annotations

import json
import zlib
from pathlib import Path
from typing import Any

import pytest

from veldarin_simulator import Scenario, ScenarioError, Simulator, scenario
from veldarin_simulator.providers import Providers, multicast

LG_STATE = "build_switch_lg_state.json"
ARP = "cli/get system arp.txt"
SUMMARY = "build_system_sniffer_profile_summary.json"
PROFILES = b'[{"profile-name": "p", "state": "None"}]'


def write(folder: Path, files: dict[str, Any]) -> Scenario:
    """Write a scenario directory and load it. Values that are not text are written as JSON."""
    for name, content in files.items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        if isinstance(content, str):
            content = content.encode()
        path.write_bytes(content if isinstance(content, bytes) else json.dumps(content).encode())
    return Scenario.load(folder)


def test_scenario_overrides_live_and_default_replies(tmp_path: Path) -> None:
    scenario = write(
        tmp_path / "mine",
        {
            "build_switch_lg_state.json": {"mine": True},
            "build_system_flash_list.json": [1, 2],
            "build_switch_stp_state.json": "null",
            "gui_chk_cert_expiration.json": -7,
            "aps_get_new_cookie_id.json": 4294967295,
            "serial_number_ascii.json": '"SER-1"',
            "cookieval_wrap.json": '"wrapped"',
            "cli/get system arp.txt": "Address\r\n192.0.2.1 0 02:00:00:00:00:01 --More--port1\r\n",
        },
    )
    with Simulator(scenario=scenario) as simulator:
        module = simulator.module
        assert module.list_switch_lg_state() == {"mine": True}
        assert module.list_system_flash_list_status() == [1, 2]
        assert module.list_switch_stp_state(0) is None
        assert module.check_cert_expiration(b"/etc/hostname") is False
        assert module.new_cookie_id() == 4294967295
        assert module.get_cookie_name(False) == f"APCOOKIE_{zlib.crc32(b'SER-1')}"
        assert module.encrypt_cookie(b"plain") == b"wrapped"
        (row,) = module.get_system_arp_result()
        assert row["interface"] == "port1"
        assert simulator.source("get_cli_cmd_output") == "recorded"
        # Other replies come from this machine or the default scenario.
        joined = multicast.groups({"port_name": "lo"})
        assert module.list_switch_igmp_snooping_group("lo") == joined
        assert simulator.source("build_switch_igmp_snooping_group") == "live"
        assert module.list_switch_trunk_state("uplink")[0]["mode"] == "lacp-active"


def test_scenario_alone_has_only_its_files(tmp_path: Path) -> None:
    scenario = write(tmp_path / "mine", {"build_switch_lg_state.json": [1]})
    replies = Providers(scenario, live=False).replies()
    assert {name: reply.source for name, reply in replies.items()} == {
        "build_switch_lg_state": "recorded"
    }


ROWS = [{"port_name": "port1", "id": 7}, {"port_name": "port2", "id": "7"}, {"a": True}, "x", None]


@pytest.mark.parametrize(
    ("request_", "left"),
    [
        ({}, ROWS),
        (None, ROWS),
        ({"port_name": None}, ROWS),
        ({"port_name": "port1"}, [ROWS[0], *ROWS[2:]]),
        ({"port_name": "port9"}, ROWS[2:]),
        ({"id": 7}, ROWS),
        ({"id": "8"}, ROWS[2:]),
    ],
)
def test_filter_rows_leaves_out_contradicting_rows(request_: Any, left: list[Any]) -> None:
    assert scenario.filter_rows(ROWS)(request_) == left


def test_recorded_rows_are_selected_by_the_module() -> None:
    with Simulator(live=True) as simulator:
        module = simulator.module
        assert [row["policy_id"] for row in module.switch_acl_ingress_counter()] == [1, 2, 7]
        assert [row["policy_id"] for row in module.switch_acl_ingress_counter("2")] == [2]
        assert [row["instance_id"] for row in module.list_switch_stp_state(0)] == [0]
        assert module.list_switch_lldp_state("port9") == []
        assert len(module.list_switch_lldp_state(None)) == 2


BROKEN = {
    # files, part of the message
    "bad JSON": ({"build_switch_lg_state.json": '{\n"a": 1,\n}'}, "lg_state.json:3:1: not JSON"),
    "empty": ({"build_switch_lg_state.json": ""}, "lg_state.json:1:1: not JSON"),
    "not UTF-8": ({"build_switch_lg_state.json": b'[\n"\xff"]'}, "lg_state.json:2:2: not UTF-8"),
    "NaN": ({"build_switch_lg_state.json": "[NaN]"}, "lg_state.json:1:2: NaN is not valid JSON"),
    "too deep": (
        {"build_switch_lg_state.json": "[" * 100_000},
        "lg_state.json: not JSON: nested too",
    ),
    "surrogate": (
        {"build_switch_lg_state.json": '"\\ud800"'},
        "lg_state.json:1:2: lone surrogates",
    ),
    "typing error": (
        {"build_switch_lg_stat.json": "[]"},
        r"no service has this name \(did you mean build_switch_lg_state.json\?\)",
    ),
    "another suffix": ({"build_switch_lg_state.txt": "[]"}, "no service has this name"),
    "no service": ({"notes.json": "[]"}, r"notes.json: no service has this name$"),
    "text for a number": ({"gui_chk_cert_expiration.json": '"0"'}, "expected an integer"),
    "truth for a number": ({"gui_chk_cert_expiration.json": "true"}, "expected an integer"),
    "too large": ({"aps_get_new_cookie_id.json": "4294967296"}, "integer from 0 to 4294967295"),
    "negative": ({"__get_aps_hash.json": "-1"}, "integer from 0 to 4294967295"),
    "number for a text": ({"cookieval_wrap.json": "1"}, "expected a string without NUL"),
    "NUL": ({"cookieval_wrap.json": '"a\\u0000b"'}, "expected a string without NUL"),
    "NUL printed": ({"cli/get x.txt": b"one\ntwo\0"}, r"get x.txt:2:4: a NUL byte would end"),
    "no text": ({"cli/get x.json": b"[]"}, "in COMMAND.txt"),
}


@pytest.mark.parametrize(("files", "message"), BROKEN.values(), ids=BROKEN)
def test_broken_file_raises_with_file_and_line(
    tmp_path: Path, files: dict[str, Any], message: str
) -> None:
    with pytest.raises(ScenarioError, match=message) as caught:
        write(tmp_path / "broken", files)
    assert str(caught.value).startswith(str(tmp_path / "broken"))
    assert "\n" not in str(caught.value)


def test_unreadable_directory_raises(tmp_path: Path) -> None:
    (tmp_path / "file").write_text("")
    for path in (tmp_path / "missing", tmp_path / "file"):
        with pytest.raises(ScenarioError, match=path.name):
            Scenario.load(path)
    (tmp_path / "folder" / "build_switch_lg_state.json").mkdir(parents=True)
    with pytest.raises(ScenarioError, match="is a directory"):
        Scenario.load(tmp_path / "folder")


def test_readme_and_hidden_files_are_ignored(tmp_path: Path) -> None:
    scenario = write(tmp_path / "mine", {"README.md": "words", ".hidden": "", "cli/.x": ""})
    assert Providers(scenario, live=False).replies() == {}


def test_exact_command_file_precedes_patterns(tmp_path: Path) -> None:
    files = {
        "cli/show {} {}.txt": "any",
        "cli/show {} x.txt": "any x",
        "cli/show a x.txt": "a x",
        "cli/show%20slash %2f.txt": "slash",
        "cli/empty.txt": "",
    }
    outputs = {
        b"show a x": (b"a x",),
        b"show b x": (b"any x",),
        b"show b y": (b"any",),
        b"show slash /": (b"slash",),
        b"show a": (),
        b"empty": (b"",),
        b"{}": (),
    }
    scenario = write(tmp_path / "mine", files)
    assert {command: scenario.command_outputs(command) for command in outputs} == outputs


def test_with_reply_returns_a_changed_copy() -> None:
    empty = Scenario()
    one = empty.with_reply(LG_STATE, b"[1]")
    assert (dict(empty), dict(one)) == ({}, {LG_STATE: b"[1]"})
    assert one.with_reply(ARP, b"Address\n").commands == {b"get system arp": (b"Address\n",)}
    assert one.with_reply(LG_STATE, b"2").services == {"build_switch_lg_state": {"": (2,)}}
    assert one.with_reply(LG_STATE, None) == empty.with_reply(ARP, None) == empty


def test_invalid_reply_raises_with_its_location() -> None:
    with pytest.raises(ScenarioError) as caught:
        Scenario().with_reply(LG_STATE, b'{\n"a" 1}')
    error = caught.value
    assert (error.path, error.line, error.column) == (Path(LG_STATE), 2, 5)
    assert str(error) == f"{LG_STATE}:2:5: {error.problem}"


@pytest.mark.parametrize(
    "name", ["", "x", ".json", "cli/", "cli/.x.txt", "cli/a/b.txt", "cli/../x.txt", "../x.json"]
)
def test_name_outside_the_scenario_raises(name: str) -> None:
    with pytest.raises(ScenarioError):
        Scenario({name: b"[]"})


def test_saved_scenario_loads_as_equal(tmp_path: Path) -> None:
    folder = tmp_path / "new" / "scenario"
    scenario = Scenario({LG_STATE: b"[1]", ARP: b"Address\r\n", "cli/%2fx \xff.txt": b""})
    scenario.save(folder)
    assert Scenario.load(folder) == scenario
    for name in ("README.md", ".notes", "cli/README.md"):
        (folder / name).write_text("mine")
    smaller = scenario.with_reply(ARP, None)
    smaller.save(folder)
    assert Scenario.load(folder) == smaller
    assert sorted(path.name for path in folder.rglob("*.md")) == ["README.md", "README.md"]


def test_file_name_that_is_not_utf8_is_a_command(tmp_path: Path) -> None:
    (tmp_path / "cli").mkdir()
    Path(str(tmp_path / "cli" / "get \udcff.txt")).write_bytes(b"text")
    assert Scenario.load(tmp_path).commands == {b"get \xff": (b"text",)}


def test_use_scenario_sets_only_differing_replies(build: None) -> None:
    first = Scenario({LG_STATE: b"1", SUMMARY: PROFILES, ARP: b"one"})
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


def test_removed_reply_falls_back_to_the_machine(build: None) -> None:
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


def test_new_profile_list_resets_captures(build: None) -> None:
    with Simulator(Scenario({SUMMARY: PROFILES}), live=False) as simulator:
        module = simulator.module
        module.capture_sniffer_profile("p", "Running")
        simulator.use_scenario(simulator.scenario.with_reply(SUMMARY, PROFILES + b"\n"))
        assert module.get_system_sniffer_profile_summary()[0]["state"] == "None"
        assert module.capture_sniffer_profile("p", "Running")["result"] == "done"
        assert module.get_system_sniffer_profile_summary()[0]["state"] == "Running"


def test_reset_reply_undoes_set_reply(build: None) -> None:
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
        with pytest.raises(ValueError, match=r"^unknown native service no_such_service$"):
            simulator.reset_reply("no_such_service")
