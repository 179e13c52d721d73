"""Scenarios: listing, loading, editing replies, saving."""

from __future__ import annotations

import io
import json
import os
import shutil
import stat
import tempfile
import threading
import warnings
import zipfile
from collections.abc import Callable
from contextlib import suppress
from pathlib import Path
from typing import Any
from urllib.parse import quote

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st
from webtest import TestApp

from tests.support.console import ARP, SCENARIO
from veldarin_simulator import Scenario, Simulator
from veldarin_simulator.console import archive, scenario_store
from veldarin_simulator.console.app import create_application
from veldarin_simulator.console.errors import PROBLEMS, ApiError
from veldarin_simulator.console.scenario_store import MAX_REPLY_BYTES, ScenarioStore
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


@pytest.mark.parametrize("body", [{}, {"name": 7}, {"name": ["x"]}])
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
    assert after == {**reply, "overridden": True, "version": after["version"]}


def test_edited_reply_applies_from_the_next_call(api: Any, initial: Path) -> None:
    before = tree(initial)
    text = '[{"group": "edited"}]'
    file = f"{LAG}.json"
    edited = edit(api, LAG, text)
    version = edited.pop("version")
    assert edited == {"name": LAG, "overridden": True, "file": file, "text": text}
    assert version
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
        (LAG, "[1e999]", 1, "1e999 is greater than every float"),
        (LAG, '"\\ud800"', 1, "lone surrogates are not allowed"),
        (LAG, "\ud800", None, "lone surrogates are not allowed"),
        (LAG, "[" * 100_000, None, "not JSON"),
        (COOKIE_ID, "-1", 1, "expected an integer from 0 to 4294967295"),
        (COOKIE_ID, "true", 1, "expected an integer from 0 to 4294967295"),
        ("serial_number_ascii", "7", 1, "expected a string without NUL"),
        ("get system arp", "a\n\0", 2, "a NUL byte would end the text"),
    ],
    ids=lambda value: str(value)[:24],
)
def test_invalid_reply_is_rejected_and_nothing_changes(
    api: Any, name: str, text: str, line: int | None, detail: str
) -> None:
    error = edit(api, name, text, status=422)
    assert detail in error["detail"]
    assert error.get("line") == line
    assert not api("GET", "/api/scenarios")["modified"]
    assert value(api, "new_cookie_id") == 4294967295


@pytest.mark.parametrize("body", [{}, {"text": 7}, {"text": []}, {"text": None}])
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
    for action in ("duplicate", "rename"):
        save(api, "mine") if action == "duplicate" else load(api, "initial")
        api("POST", f"/api/scenarios/mine/{action}", {"to": name}, status=422)
    api("DELETE", "/api/scenarios/mine")
    shutil.rmtree(store / ".trash")
    path = f"/api/scenarios/{quote(name, safe='')}"
    expected = 422 if name and "/" not in name else 404
    assert client.put_json(path, {}, status="*").status_int == expected
    assert tree(tmp_path) == before
    assert not any(store.iterdir())


def test_scenario_cannot_be_saved_as_current(api: Any) -> None:
    assert save(api, "current", status=400)["at"] == "name"
    for action in ("rename", "duplicate"):
        path = f"/api/scenarios/initial/{action}"
        error = api("POST", path, {"to": "current"}, status=409 if action == "rename" else 422)
        assert error["type"] in ("/problems/scenario-in-use", "/problems/invalid-name")


def test_saving_leaves_foreign_files_alone(api: Any, initial: Path) -> None:
    edit(api, LAG, "[]")
    added = {"notes.txt": b"x", "build_system_flash_list.json": b"[]", "cli/get system.txt": b"y"}
    for name, text in added.items():
        (initial / name).write_bytes(text)
    before = tree(initial)
    save(api, "initial")
    assert tree(initial) == {**before, f"{LAG}.json": b"[]"}


def test_file_changed_on_disk_is_not_overwritten(api: Any, initial: Path) -> None:
    edit(api, LAG, "[]")
    edit(api, "get system arp", "mine")
    (initial / f"{COOKIE_ID}.json").write_text("8")  # loaded, and not edited here
    (initial / "cli" / "get system arp.txt").write_text("theirs")  # both
    (initial / f"{LAG}.json").write_text("[1]")  # new
    (initial / "build_system_interface_physical.json").unlink()
    before = tree(initial)
    error = save(api, "initial", status=409)
    assert error["type"] == "/problems/scenario-changed"
    changed = [
        f"{COOKIE_ID}.json",
        f"{LAG}.json",
        "build_system_interface_physical.json",
        "cli/get system arp.txt",
    ]
    assert error["files"] == changed
    assert all(file in error["detail"] for file in changed)
    assert tree(initial) == before
    assert api("GET", "/api/scenarios/current")["changed"] == [changed[1], changed[3]]
    path = "/api/scenarios/initial"
    assert api("PUT", path, {"overwrite": changed[1:]}, status=409)["files"] == changed[:1]
    assert tree(initial) == before
    assert not api("PUT", path, {"overwrite": changed})["modified"]
    expected = SCENARIO.with_reply(f"{LAG}.json", b"[]")
    assert tree(initial) == expected.with_reply("cli/get system arp.txt", b"mine")


def test_equal_change_on_disk_is_not_a_conflict(api: Any, initial: Path) -> None:
    edit(api, LAG, "[]")
    (initial / f"{LAG}.json").write_text("[]")
    api("DELETE", f"/api/replies/{COOKIE_ID}")
    (initial / f"{COOKIE_ID}.json").unlink()
    assert not save(api, "initial")["modified"]


def test_changed_scenario_can_be_saved_elsewhere(api: Any, initial: Path, store: Path) -> None:
    (initial / f"{COOKIE_ID}.json").write_text("8")
    before = tree(initial)
    save(api, "initial", status=409)
    save(api, "mine")
    assert tree(store / "mine") == dict(SCENARIO)
    assert tree(initial) == before


def test_save_after_the_directory_was_deleted_is_rejected(api: Any, initial: Path) -> None:
    shutil.rmtree(initial)
    assert save(api, "initial", status=409)["files"] == sorted(SCENARIO)
    api("PUT", "/api/scenarios/initial", {"overwrite": list(SCENARIO)})
    assert tree(initial) == dict(SCENARIO)


def crash_in_step(number: int, run: Callable[[], None]) -> bool:
    """Run in a process that ends before a step that changes files; return whether it did."""
    child = os.fork()
    if child == 0:
        remaining = number

        def counted(step: Any) -> Any:
            def run(*arguments: Any, **keywords: Any) -> Any:
                nonlocal remaining
                if remaining == 0:
                    os._exit(1)
                remaining -= 1
                return step(*arguments, **keywords)

            return run

        for name in ("open", "fsync", "replace", "unlink", "mkdir", "rename"):
            setattr(os, name, counted(getattr(os, name)))
        try:
            run()
            os._exit(0)
        finally:
            os._exit(2)
    status = os.waitpid(child, 0)[1]
    assert status in (0, 1 << 8)
    return status != 0


@pytest.mark.parametrize("is_new", [False, True])
def test_crash_during_a_save_leaves_old_or_new(store: Path, is_new: bool) -> None:
    old = {f"{LAG}.json": b"[1]", f"{COOKIE_ID}.json": b"1", "cli/a.txt": b"1", "cli/b.txt": b"1"}
    new = {f"{LAG}.json": b"[2]", "cli/a.txt": b"2", "cli/c.txt": b"2", "cli/b.txt": b"1"}
    stored = ScenarioStore(store)
    found, steps = [], 0
    crashed = True
    while crashed:
        shutil.rmtree(store)
        stored.create("mine", old)
        (store / "mine" / ".notes").write_text("mine")
        if is_new:
            crashed = crash_in_step(steps, lambda: stored.create("fresh", new))
            assert stored.read("mine") == old
            found.append(stored.read("fresh") if "fresh" in stored.names() else old)
        else:
            crashed = crash_in_step(steps, lambda: stored.save("mine", new, old))
            found.append(stored.read("mine"))
            assert not (store / "mine" / ".save").exists()
        assert (store / "mine" / ".notes").read_text() == "mine"
        steps += 1
    assert steps > 20
    # From some step on it is the new one.
    assert found == [old] * found.count(old) + [new] * found.count(new)
    assert found.count(new) > 1


def test_unfinished_save_leaves_a_file_changed_since(
    mine: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    stored = ScenarioStore(mine.parent)
    old = {f"{LAG}.json": b"[1]", "cli/a.txt": b"1"}
    for file, text in old.items():
        (mine / file).write_bytes(text)

    monkeypatch.setattr(scenario_store, "_finish_save", lambda _: None)
    stored.save("mine", {f"{LAG}.json": b"[2]", "cli/a.txt": b"2"}, old)
    monkeypatch.undo()
    assert (mine / ".save").exists()
    (mine / "cli" / "a.txt").write_text("edited since")
    assert stored.read("mine") == {f"{LAG}.json": b"[2]", "cli/a.txt": b"edited since"}
    assert not (mine / ".save").exists()


@pytest.mark.parametrize(
    "content",
    ["", "{", "7", "[7]", "[[1, 2, 3]]", '[["../x", null, null]]', '[["a/b", "c", null]]'],
)
def test_foreign_save_file_is_ignored(mine: Path, content: str) -> None:
    (mine / ".save").write_text(content)
    (mine.parent / "x").write_text("stays")
    assert ScenarioStore(mine.parent).read("mine") == {}
    assert (mine.parent / "x").read_text() == "stays"


# Renaming, copying, deleting


def change(api: Any, name: str, action: str, to: str, status: int = 200) -> Any:
    return api("POST", f"/api/scenarios/{name}/{action}", {"to": to}, status=status)


def test_loaded_scenario_is_renamed_with_its_edits(api: Any, store: Path) -> None:
    save(api, "mine")
    edit(api, LAG, "[]")
    (store / "mine" / "notes").write_text("x")
    state = change(api, "mine", "rename", "yours")
    assert (state["loaded"], state["modified"]) == ("yours", True)
    assert state["scenarios"] == ["initial", "yours"]
    save(api, "yours")
    saved = {**SCENARIO, f"{LAG}.json": b"[]", "notes": b"x"}
    assert tree(store) == {f"yours/{file}": text for file, text in saved.items()}


def test_duplicate_has_the_saved_replies(api: Any, store: Path) -> None:
    edit(api, LAG, "[]")
    state = change(api, "initial", "duplicate", "copy")
    assert (state["loaded"], state["modified"]) == ("initial", True)
    assert tree(store / "copy") == dict(SCENARIO)


def test_deleted_scenario_moves_to_the_trash(api: Any, store: Path, mine: Path) -> None:
    (mine / "notes").write_text("x")
    assert api("DELETE", "/api/scenarios/mine")["scenarios"] == ["initial"]
    (trashed,) = (store / ".trash").iterdir()
    assert tree(trashed) == {"notes": b"x"}
    api("GET", "/api/scenarios/mine", status=404)
    api("DELETE", "/api/scenarios/mine", status=404)
    change(api, "mine", "rename", "x", status=404)
    change(api, "mine", "duplicate", "x", status=404)


def test_scenario_in_use_is_not_deleted(api: Any) -> None:
    save(api, "mine")
    assert "load another one first" in api("DELETE", "/api/scenarios/mine", status=409)["detail"]
    load(api, None)
    assert "--scenario" in api("DELETE", "/api/scenarios/initial", status=409)["detail"]
    assert "--scenario" in change(api, "initial", "rename", "x", status=409)["detail"]


@pytest.mark.parametrize("to", ["initial", "mine", "file"])
def test_name_in_use_is_not_taken(api: Any, store: Path, mine: Path, to: str) -> None:
    (store / "file").write_text("x")
    (store / "other").mkdir()
    before = tree(store)
    for action in ("rename", "duplicate"):
        error = change(api, "other", action, to, status=409)
        assert error["type"] == "/problems/scenario-exists"
    assert tree(store) == before


def test_scenario_lists_its_files(api: Any, initial: Path, mine: Path) -> None:
    files = [{"name": name, "bytes": len(text)} for name, text in SCENARIO.items()]
    assert api("GET", "/api/scenarios/initial") == {
        "name": "initial",
        "directory": str(initial),
        "fixed": True,
        "files": files,
    }
    assert api("GET", "/api/scenarios/mine")["fixed"] is False
    edit(api, LAG, "[]")
    current = api("GET", "/api/scenarios/current")
    assert (current["name"], current["modified"]) == ("initial", True)
    assert current["changed"] == [f"{LAG}.json"]
    assert {"name": f"{LAG}.json", "bytes": 2} in current["files"]


def test_reply_with_another_base_is_not_replaced(api: Any) -> None:
    path = f"/api/replies/{LAG}"
    first = api("PUT", path, {"text": "[1]", "base": None})
    error = api("PUT", path, {"text": "[2]", "base": None}, status=409)
    assert (error["type"], error["version"]) == ("/problems/reply-changed", first["version"])
    second = api("PUT", path, {"text": "[2]", "base": first["version"]})
    assert second["version"] != first["version"]
    api("PUT", path, {"text": "[3]", "base": first["version"]}, status=409)
    assert api("GET", path) == second


@pytest.mark.parametrize("is_loaded", [False, True])
def test_edit_clears_the_sessions_that_bfd_calls_share(
    api: Any, mine: Path, is_loaded: bool
) -> None:
    command = "get router info bfd neighbor"
    edit(api, "get router info6 bfd neighbor", "")
    edit(api, "get router info6 bfd neighbor {} {}", "")
    session = "BFD Peers:\npeer {} interface port1\nZebra Notifications: 1\n"
    edit(api, command, session.format("192.0.2.1"))
    edit(api, f"{command} {{}} {{}}", session.format("192.0.2.1"))
    assert [one["neighbor_ip"] for one in value(api, "list_bfd_neighbor")] == ["192.0.2.1"]
    if is_loaded:
        for name in (command, f"{command} {{}} {{}}"):
            (mine / "cli" / f"{name}.txt").write_text(session.format("192.0.2.2"))
            (mine / "cli" / f"{name.replace('info', 'info6')}.txt").write_text("")
        load(api, "mine")
    else:
        edit(api, command, session.format("192.0.2.2"))
        edit(api, f"{command} {{}} {{}}", session.format("192.0.2.2"))
    assert [one["neighbor_ip"] for one in value(api, "list_bfd_neighbor")] == ["192.0.2.2"]


# Archives


def zipped(*entries: tuple[Any, bytes], compression: int = zipfile.ZIP_DEFLATED) -> bytes:
    content = io.BytesIO()
    with warnings.catch_warnings(), zipfile.ZipFile(content, "w", compression) as archive:
        warnings.simplefilter("ignore", UserWarning)  # duplicate names
        for entry, text in entries:
            archive.writestr(entry, text)
    return content.getvalue()


def send_archive(client: Any, name: str, content: bytes, status: int = 200) -> Any:
    kind = {"Content-Type": "application/zip"}
    return client.put(f"/api/scenarios/{name}/archive", content, kind, status=status).json


def test_exported_scenario_can_be_imported(api: Any, client: Any, store: Path) -> None:
    edit(api, LAG, "[]")
    response = client.get("/api/scenarios/initial/archive", status=200)
    assert response.content_type == "application/zip"
    disposition = 'attachment; filename="initial.zip"'
    assert response.headers["Content-Disposition"] == disposition
    state = send_archive(client, "copy", response.body)
    assert (state["loaded"], state["scenarios"]) == ("initial", ["initial", "copy"])
    assert tree(store / "copy") == dict(SCENARIO)
    again = client.get("/api/scenarios/copy/archive").body
    assert again == response.body
    assert send_archive(client, "copy", again, 409)["type"] == "/problems/scenario-exists"


def test_archive_of_any_name_can_be_saved(session: Session, tmp_path: Path) -> None:
    (tmp_path / 'zei"ge\n日').mkdir()
    store = ScenarioStore(tmp_path / "store", tmp_path / 'zei"ge\n日')
    session._store = store
    client = TestApp(create_application(session), extra_environ={"HTTP_HOST": "localhost"})
    name = quote('zei"ge\n日')
    response = client.get(f"/api/scenarios/{name}/archive", status=200)
    assert response.headers["Content-Disposition"] == 'attachment; filename="zei_ge__.zip"'


def test_archive_of_a_folder_has_directories_and_notes(client: Any, store: Path) -> None:
    entries = [("README.md", b"x"), (".notes", b"x"), ("cli/", b""), ("cli/a.txt", b"b")]
    send_archive(client, "mine", zipped(*entries))
    assert tree(store / "mine") == {"cli/a.txt": b"b"}


def link(name: str) -> zipfile.ZipInfo:
    entry = zipfile.ZipInfo(name)
    entry.external_attr = (stat.S_IFLNK | 0o777) << 16
    return entry


LARGE = b"[" + b" " * MAX_REPLY_BYTES + b"]"
ARCHIVE, REPLY, LARGE_ERROR = "invalid-archive", "invalid-reply", "too-large"


def with_method(archive: bytes, method: int) -> bytes:
    """Return an archive of one file whose directory names another method of compression."""
    place = archive.index(b"PK\1\2") + 10
    return archive[:place] + method.to_bytes(2, "little") + archive[place + 2 :]


BAD_ARCHIVES = {
    "empty": (b"", ARCHIVE),
    "text": (b"[]", ARCHIVE),
    "cut": (zipped(("cli/a.txt", b"x" * 999))[:-40], ARCHIVE),
    "parent": (zipped(("../cli/a.txt", b"")), ARCHIVE),
    "absolute": (zipped(("/etc/passwd", b"")), ARCHIVE),
    "inside": (zipped(("cli/../../a.txt", b"")), ARCHIVE),
    "folder": (zipped((f"mine/{LAG}.json", b"[]")), ARCHIVE),
    "backslash": (zipped(("cli/..\\a.txt", b"")), ARCHIVE),
    "hidden": (zipped(("cli/.a.txt", b"")), ARCHIVE),
    "link": (zipped((link("cli/a.txt"), b"/etc/passwd")), ARCHIVE),
    "twice": (zipped(("cli/a.txt", b"1"), ("cli/a.txt", b"2")), ARCHIVE),
    "compression": (with_method(zipped(("cli/a.txt", b"1")), zipfile.ZIP_LZMA), ARCHIVE),
    "unknown service": (zipped(("build_nonsense.json", b"[]")), REPLY),
    "invalid reply": (zipped((f"{LAG}.json", b"{")), REPLY),
    "large reply": (zipped((f"{LAG}.json", LARGE)), LARGE_ERROR),
    "large scenario": (zipped(*((f"cli/{i}.txt", LARGE[:-2]) for i in range(9))), LARGE_ERROR),
    "many": (zipped(*((f"cli/{i}.txt", b"") for i in range(1001))), ARCHIVE),
}


@pytest.mark.parametrize(("content", "kind"), BAD_ARCHIVES.values(), ids=BAD_ARCHIVES)
def test_bad_archive_is_rejected(client: Any, tmp_path: Path, content: bytes, kind: str) -> None:
    before = tree(tmp_path)
    error = send_archive(client, "mine", content, PROBLEMS[kind].status)
    assert (error["type"], bool(error["detail"])) == (f"/problems/{kind}", True)
    assert tree(tmp_path) == before


def test_encrypted_archive_is_rejected(client: Any) -> None:
    content = bytearray(zipped(("cli/a.txt", b"1"), compression=zipfile.ZIP_STORED))
    for header, flags in ((b"PK\1\2", 8), (b"PK\3\4", 6)):
        content[content.index(header) + flags] |= 1
    assert "encrypted" in send_archive(client, "mine", bytes(content), 422)["detail"]


@settings(max_examples=500, deadline=None)
@given(st.data())
def test_damaged_archive_is_an_archive_or_an_error(data: st.DataObject) -> None:
    content = bytearray(archive.pack({**SCENARIO}))
    for _ in range(data.draw(st.integers(1, 5))):
        content[data.draw(st.integers(0, len(content) - 1))] = data.draw(st.integers(0, 255))
    with suppress(ApiError):
        archive.unpack(bytes(content))


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
    assert "links are not followed" in load(api, "link", status=409)["detail"]
    assert "already exists" in save(api, "link", status=409)["detail"]
    for action in ("duplicate", "rename"):
        error = api("POST", f"/api/scenarios/link/{action}", {"to": "x"}, status=409)
        assert "links are not followed" in error["detail"]
    api("DELETE", "/api/scenarios/link", status=409)
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
    edit(api, LAG, '["edited"]')
    assert "links are not followed" in save(api, "mine", status=409)["detail"]
    assert tree(outside) == before
    (store / "mine" / f"{LAG}.json").unlink()
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
    monkeypatch.setattr(scenario_store, "MAX_SCENARIO_BYTES", 10)
    (mine / f"{LAG}.json").write_text("[1,2]")
    (mine / "cli" / "b.txt").write_text("12345")
    stored = ScenarioStore(mine.parent)
    files = {f"{LAG}.json": b"[1,2]", "cli/b.txt": b"12345"}
    assert stored.read("mine") == files
    (mine / "cli" / "b.txt").write_text("123456")
    with pytest.raises(ApiError, match="larger than 10 bytes"):
        stored.read("mine")
    larger = {**files, "cli/b.txt": b"123456"}
    with pytest.raises(ApiError, match="larger than 10 bytes"):
        stored.create("other", larger)
    (mine / "cli" / "b.txt").write_text("12345")
    with pytest.raises(ApiError, match="larger than 10 bytes"):
        stored.save("mine", larger, files)
    assert tree(mine) == files


def test_reply_has_one_limit_for_opening_and_saving(api: Any, mine: Path) -> None:
    file = mine / "cli" / "get system arp.txt"
    largest = "\x01" * MAX_REPLY_BYTES  # JSON needs six times as much
    file.write_text(largest)
    load(api, "mine")
    assert api("GET", "/api/replies/get system arp")["text"] == largest
    edit(api, "get system arp", "short")
    edit(api, "get system arp", largest)
    error = edit(api, "get system arp", largest + "x", status=413)
    assert (error["file"], error["max_bytes"]) == ("cli/get system arp.txt", MAX_REPLY_BYTES)
    file.write_text(largest + "x")
    assert load(api, "mine", status=413)["file"] == "cli/get system arp.txt"


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
