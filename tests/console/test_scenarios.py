"""Scenarios: listing, loading, editing replies, saving."""

from __future__ import annotations

import json
import os
import tempfile
import threading
from pathlib import Path
from typing import Any
from urllib.parse import quote

import pytest

from tests.support.console import ARP, SCENARIO
from veldarin_simulator import Scenario, Simulator
from veldarin_simulator.console import scenario_store
from veldarin_simulator.console.errors import ApiError
from veldarin_simulator.console.scenario_store import ScenarioStore
from veldarin_simulator.console.session import Session
from veldarin_simulator.scenario import SERVICES

LAG = "build_switch_lg_state"
COOKIE_ID = "aps_get_new_cookie_id"


@pytest.fixture
def store(tmp_path: Path) -> Path:
    """The directory of the saved scenarios."""
    directory = tmp_path / "store"
    directory.mkdir()
    return directory


@pytest.fixture
def mine(store: Path) -> Path:
    """An empty scenario in the store."""
    (store / "mine" / "cli").mkdir(parents=True)
    return store / "mine"


def value(api: Any, function: str, *arguments: Any) -> Any:
    return api("POST", f"/api/functions/{function}", {"arguments": arguments})["result"]["value"]


def load(api: Any, name: Any, status: int = 200) -> Any:
    return api("PUT", "/api/scenarios/current", {"name": name}, status=status)


def save(api: Any, name: str, status: int = 200) -> Any:
    return api("PUT", f"/api/scenarios/{name}", {}, status=status)


def edit(api: Any, name: str, text: Any, status: int = 200) -> Any:
    return api("PUT", f"/api/replies/{name}", {"text": text}, status=status)


def tree(directory: Path) -> dict[str, bytes]:
    files = (path for path in directory.rglob("*") if path.is_file())
    return {path.relative_to(directory).as_posix(): path.read_bytes() for path in files}


# Listing and loading


def test_initial_scenario_is_loaded_and_listed_first(api: Any, store: Path) -> None:
    for name in ("zebra", "abc", ".hidden", "not a name"):
        (store / name).mkdir()
    (store / "file").write_text("")
    state = api("GET", "/api/scenarios")
    assert state["loaded"] == "initial"
    assert state["scenarios"] == ["initial", "abc", "zebra"]
    assert (state["modified"], state["store"]) == (False, str(store))
    assert value(api, "new_cookie_id") == 4294967295


def test_without_a_scenario_this_machine_replies(api: Any) -> None:
    assert value(api, "list_switch_port_statistics", "port1") == [
        {"port_name": "port1", "errin": 3}
    ]
    state = load(api, None)
    assert (state["loaded"], state["directory"]) == (None, None)
    call = api("POST", "/api/functions/list_switch_port_statistics", {"arguments": ["lo"]})
    assert (call["source"], call["result"]["value"][0]["port_name"]) == ("live", "lo")


def test_stored_scenario_replaces_the_initial_one(api: Any, mine: Path) -> None:
    (mine / f"{LAG}.json").write_text('[{"group": "mine"}]')
    assert load(api, "mine")["loaded"] == "mine"
    assert value(api, "list_switch_lg_state") == [{"group": "mine"}]
    assert value(api, "new_cookie_id") != 4294967295


def test_invalid_scenario_is_rejected_and_the_old_one_stays(api: Any, mine: Path) -> None:
    (mine / f"{LAG}.json").write_text('[\n{"group": ]')
    error = load(api, "mine", status=422)
    assert (error["file"], error["line"], error["column"]) == (f"{LAG}.json", 2, 11)
    assert "not JSON" in error["detail"]
    assert api("GET", "/api/scenarios")["loaded"] == "initial"
    assert value(api, "new_cookie_id") == 4294967295


@pytest.mark.parametrize("body", [{}, {"name": 7}, {"name": ["x"]}, {"title": "x"}])
def test_load_without_a_name_is_rejected(api: Any, body: dict[str, Any]) -> None:
    assert api("PUT", "/api/scenarios/current", body, status=400)["at"] == "name"
    assert api("GET", "/api/scenarios")["loaded"] == "initial"


# Replies


def test_every_reply_is_listed_with_its_source(api: Any) -> None:
    listed = {one["name"]: one for one in api("GET", "/api/replies")["replies"]}
    assert set(SERVICES) <= set(listed)
    assert listed["build_switch_port_statistics"]["overridden"]
    assert listed[LAG]["source"] == "recorded"
    assert not listed[LAG]["overridden"]
    assert listed["build_system_flash_list"]["source"] == "live"
    assert listed["get system arp"]["overridden"]
    assert listed["get system arp"]["command"]
    assert not any(one["modified"] for one in listed.values())


NETLINK = {"build_switch_flapguard_status", "build_system_link_monitor_status"}


@pytest.mark.parametrize(
    "name",
    [
        pytest.param(name, marks=[pytest.mark.requires("netlink")] if name in NETLINK else [])
        for name in SERVICES
    ],
)
def test_current_reply_can_be_sent_back_unchanged(api: Any, name: str) -> None:
    reply = api("GET", f"/api/replies/{name}")
    after = edit(api, name, reply["text"])
    assert after == {**reply, "overridden": True}


def test_edited_reply_applies_from_the_next_call(api: Any, initial: Path) -> None:
    before = tree(initial)
    text = '[{"group": "edited"}]'
    file = f"{LAG}.json"
    reply = {"name": LAG, "overridden": True, "file": file, "text": text}
    assert edit(api, LAG, text) == reply
    assert value(api, "list_switch_lg_state") == [{"group": "edited"}]
    assert value(api, "new_cookie_id") == 4294967295
    assert api("GET", "/api/scenarios")["modified"]
    modified = [one["name"] for one in api("GET", "/api/replies")["replies"] if one["modified"]]
    assert modified == [LAG]
    assert tree(initial) == before


def test_deleted_reply_is_the_default_again(api: Any) -> None:
    assert not api("DELETE", f"/api/replies/{COOKIE_ID}")["overridden"]
    assert value(api, "new_cookie_id") != 4294967295
    assert api("GET", "/api/scenarios")["modified"]
    edit(api, COOKIE_ID, "4294967295")
    assert not api("GET", "/api/scenarios")["modified"]


def test_edit_keeps_simulator_packet_captures_and_secret(
    api: Any, session: Session, simulator: Simulator, monkeypatch: pytest.MonkeyPatch
) -> None:
    body = {"arguments": ["lan-trace"], "keywords": {"event": "Running"}}
    api("POST", "/api/functions/capture_sniffer_profile", body)
    token = value(api, "get_token")
    assert len(token) == 64
    monkeypatch.setattr(tempfile, "mkdtemp", None)  # an edit creates no directory
    edit(api, LAG, "[]")
    edit(api, "get system arp", "Address\n")
    edit(api, LAG, "{", status=422)
    api("DELETE", f"/api/replies/{LAG}")
    with session.simulator() as current:
        assert current is simulator
    assert value(api, "get_token") == token
    # Editor and module see one set of providers.
    text = api("GET", "/api/replies/build_system_sniffer_profile_summary")["text"]
    for profiles in (json.loads(text), value(api, "get_system_sniffer_profile_summary")):
        assert (profiles[0]["profile-name"], profiles[0]["state"]) == ("lan-trace", "Running")


def test_loading_a_scenario_keeps_the_simulator(
    api: Any, session: Session, simulator: Simulator, mine: Path
) -> None:
    token = value(api, "get_token")
    load(api, "mine")
    with session.simulator() as current:
        assert current is simulator
    assert value(api, "get_token") == token


@pytest.mark.parametrize(
    ("name", "text", "line", "detail"),
    [
        (LAG, "{", 1, "not JSON"),
        (LAG, "[\n1,\n]", 3, "not JSON"),
        (LAG, "", 1, "not JSON"),
        (LAG, "[NaN]", 1, "NaN is not valid JSON"),
        (LAG, '"\\ud800"', 1, "lone surrogates are not allowed"),
        (LAG, "\ud800", None, "lone surrogates are not allowed"),
        (LAG, "[" * 100_000, None, "not JSON"),
        (COOKIE_ID, "-1", 1, "expected an integer from 0 to 4294967295"),
        (COOKIE_ID, "true", 1, "expected an integer from 0 to 4294967295"),
        ("serial_number_ascii", "7", 1, "expected a string without NUL"),
        ("get system arp", "a\n\0", 2, "a NUL byte would end the text"),
    ],
)
def test_invalid_reply_is_rejected_and_nothing_changes(
    api: Any, name: str, text: str, line: int | None, detail: str
) -> None:
    error = edit(api, name, text, status=422)
    assert detail in error["detail"]
    assert error.get("line") == line
    assert not api("GET", "/api/scenarios")["modified"]
    assert value(api, "new_cookie_id") == 4294967295


@pytest.mark.parametrize("body", [{}, {"text": 7}, {"text": []}, {"text": None}, {"value": "x"}])
def test_reply_that_is_not_a_string_is_rejected(api: Any, body: dict[str, Any]) -> None:
    assert api("PUT", f"/api/replies/{LAG}", body, status=400)["at"] == "text"


@pytest.mark.parametrize(
    ("command", "file"),
    [
        ("get system arp", "cli/get system arp.txt"),
        ("  get   system\tarp ", "cli/get system arp.txt"),
        ("show a/b", "cli/show a%2Fb.txt"),
        ("show 100%", "cli/show 100%25.txt"),
        (".hidden", "cli/%2Ehidden.txt"),
        ("../../escape", "cli/%2E.%2F..%2Fescape.txt"),
        ("/etc/passwd", "cli/%2Fetc%2Fpasswd.txt"),
        ("zeige grüße", "cli/zeige gr%C3%BC%C3%9Fe.txt"),
        ("x" * 127, f"cli/{'x' * 127}.txt"),
    ],
)
def test_command_is_saved_in_a_file_of_its_own(
    api: Any, initial: Path, command: str, file: str
) -> None:
    assert edit(api, command, "printed\r\n")["file"] == file
    assert value(api, "get_cli_command_output", command) == "printed\r\n"
    save(api, "initial")
    assert (initial / file).read_bytes() == b"printed\r\n"
    load(api, "initial")
    assert value(api, "get_cli_command_output", command) == "printed\r\n"


@pytest.mark.parametrize(
    ("name", "detail"),
    [
        (" ", "1 to 127 bytes"),
        ("a\0b", "1 to 127 bytes"),
        ("x" * 128, "1 to 127 bytes"),
        ("/" * 127, "too long"),
    ],
)
def test_invalid_command_is_rejected(api: Any, name: str, detail: str) -> None:
    assert detail in edit(api, name, "x", status=422)["detail"]


def test_command_under_another_file_name_keeps_its_file(api: Any, mine: Path) -> None:
    (mine / "cli" / "get%20system%20arp.txt").write_text(ARP)
    load(api, "mine")
    reply = api("GET", "/api/replies/get system arp")
    assert (reply["overridden"], reply["file"]) == (True, "cli/get%20system%20arp.txt")
    edit(api, "get system arp", "Address\n")
    assert value(api, "get_system_arp_result") == []


def test_output_that_is_not_utf8_cannot_be_edited(api: Any, mine: Path) -> None:
    (mine / "cli" / "get system arp.txt").write_bytes(b"\xff")
    load(api, "mine")
    error = api("GET", "/api/replies/get system arp", status=409)
    assert "edit the file itself" in error["detail"]


# Saving


def test_saved_scenario_contains_the_edited_replies(api: Any, store: Path) -> None:
    edit(api, LAG, "[]")
    api("DELETE", f"/api/replies/{COOKIE_ID}")
    state = save(api, "new-one")
    assert (state["loaded"], state["modified"]) == ("new-one", False)
    assert state["directory"] == str(store / "new-one")
    expected = SCENARIO.with_reply(f"{COOKIE_ID}.json", None).with_reply(f"{LAG}.json", b"[]")
    assert tree(store / "new-one") == dict(expected)
    assert Scenario.load(store / "new-one") == expected


@pytest.mark.requires("netlink")  # the output of the deleted command is live
def test_saving_deletes_removed_replies_and_leaves_notes(api: Any, initial: Path) -> None:
    for note in ("README.md", ".notes", "cli/.notes"):
        (initial / note).write_text("mine")
    for name in (COOKIE_ID, "get system arp"):
        api("DELETE", f"/api/replies/{name}")
    before = tree(initial)
    save(api, "initial")
    deleted = {f"{COOKIE_ID}.json", "cli/get system arp.txt"}
    assert tree(initial) == {name: text for name, text in before.items() if name not in deleted}


def test_scenario_that_is_not_loaded_is_not_overwritten(api: Any, store: Path, mine: Path) -> None:
    (mine / f"{LAG}.json").write_text("[1]")
    assert "the scenario mine already exists" in save(api, "mine", status=409)["detail"]
    assert tree(store) == {f"mine/{LAG}.json": b"[1]"}


def test_save_with_parameters_is_rejected(api: Any, store: Path) -> None:
    assert api("PUT", "/api/scenarios/mine", {"text": "x"}, status=400)["at"] == "text"
    assert not any(store.iterdir())


NAMES = ". .. ../escape a/b /etc a\\b/../../x .hidden -x/.. ü".split()


@pytest.mark.parametrize("name", [*NAMES, "", "a b", "x" * 65, "nul\0", "new\n"])
def test_invalid_scenario_name_is_rejected(
    api: Any, client: Any, tmp_path: Path, store: Path, name: str
) -> None:
    before = tree(tmp_path)
    assert "a scenario name consists of" in load(api, name, status=422)["detail"]
    path = f"/api/scenarios/{quote(name, safe='')}"
    assert client.put_json(path, {}, status="*").status_int == (422 if name else 404)
    assert tree(tmp_path) == before
    assert not any(store.iterdir())


def test_scenario_cannot_be_saved_as_current(api: Any) -> None:
    assert 'under the name "current"' in save(api, "current", status=400)["detail"]


# Links and special files


@pytest.fixture
def outside(tmp_path: Path) -> Path:
    """A directory outside of all scenarios, which must not change."""
    directory = tmp_path / "outside"
    (directory / "cli").mkdir(parents=True)
    (directory / f"{LAG}.json").write_text('["secret"]')
    return directory


def test_link_to_a_directory_is_not_a_scenario(api: Any, store: Path, outside: Path) -> None:
    before = tree(outside)
    (store / "link").symlink_to(outside)
    assert "link" not in api("GET", "/api/scenarios")["scenarios"]
    for action in (load, save):
        assert "links are not followed" in action(api, "link", status=409)["detail"]
    assert tree(outside) == before


@pytest.mark.parametrize("link", [f"{LAG}.json", "cli"])
def test_link_in_a_scenario_is_not_read(api: Any, store: Path, outside: Path, link: str) -> None:
    (store / "mine").mkdir()
    (store / "mine" / link).symlink_to(outside / link)
    assert "links are not followed" in load(api, "mine", status=409)["detail"]


def test_link_in_a_saved_scenario_is_not_written_through(
    api: Any, store: Path, outside: Path
) -> None:
    edit(api, LAG, '["mine"]')
    save(api, "mine")
    before = tree(outside)
    (store / "mine" / f"{LAG}.json").unlink()
    (store / "mine" / f"{LAG}.json").symlink_to(outside / f"{LAG}.json")
    save(api, "mine")
    assert tree(outside) == before
    assert not (store / "mine" / f"{LAG}.json").is_symlink()
    (store / "mine" / "cli").rename(store / "cli")
    (store / "mine" / "cli").symlink_to(outside / "cli")
    assert "links are not followed" in save(api, "mine", status=409)["detail"]
    assert tree(outside) == before


def test_named_pipe_in_a_scenario_does_not_block(api: Any, mine: Path) -> None:
    pipe = mine / f"{LAG}.json"
    os.mkfifo(pipe)
    # Unblocks a reader after 10 s, so that a failure does not hang.
    late = threading.Timer(10, lambda: os.close(os.open(pipe, os.O_WRONLY | os.O_NONBLOCK)))
    late.start()
    assert load(api, "mine", status=422)["detail"]
    assert not late.finished.is_set(), "the console waited for the pipe"
    late.cancel()


def test_scenario_above_the_size_limit_is_rejected(
    mine: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(scenario_store, "_MAX_BYTES", 10)
    (mine / f"{LAG}.json").write_text("[1,2]")
    (mine / "cli" / "b.txt").write_text("12345")
    stored = ScenarioStore(mine.parent)
    assert stored.load("mine") == {f"{LAG}.json": b"[1,2]", "cli/b.txt": b"12345"}
    (mine / "cli" / "b.txt").write_text("123456")
    with pytest.raises(ApiError, match="larger than 10 bytes"):
        stored.load("mine")


def test_failed_write_leaves_no_temporary_file(
    api: Any, initial: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    before = tree(initial)

    def fail(*_: Any, **__: Any) -> None:
        raise OSError(28, "No space left on device")

    monkeypatch.setattr(os, "replace", fail)
    assert save(api, "initial", 409)["detail"] == f"{initial}: no space left on device"
    assert tree(initial) == before


def test_unwritable_store_is_reported(api: Any, store: Path) -> None:
    store.rmdir()
    store.write_text("")
    assert save(api, "mine", status=409)["detail"].startswith(f"{store / 'mine'}: ")
