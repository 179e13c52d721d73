"""The console's scenarios: answers edited and kept, in a scenario's own folder and nowhere else."""

from __future__ import annotations

import os
import threading
from collections.abc import Iterator
from pathlib import Path
from typing import Any
from urllib.parse import quote

import pytest

from tests.support.console import ARP, client, opened
from veldarin_simulator import scenario
from veldarin_simulator.console import scenario_store
from veldarin_simulator.console.errors import Problem
from veldarin_simulator.console.scenario_store import Shelf
from veldarin_simulator.console.session import Bench

LG_STATE = "build_switch_lg_state"


@pytest.fixture
def bench(build: None, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Iterator[Bench]:
    """A bench that was given a scenario; its shelf is `tmp_path / "shelf"`."""
    with opened(tmp_path, monkeypatch) as bench:
        yield bench


@pytest.fixture
def asked(bench: Bench) -> Any:
    """Asks the application: (path, body or none) to the JSON of the answer."""
    app = client(bench)

    def asked(path: str, body: Any = None, status: int = 200) -> Any:
        if body is None:
            return app.get(quote(path), status=status).json
        return app.post_json(quote(path), body, status=status).json

    return asked


@pytest.fixture
def shelf(tmp_path: Path) -> Path:
    """The folder of the scenarios, made."""
    folder = tmp_path / "shelf"
    folder.mkdir()
    return folder


def value(asked: Any, function: str, *arguments: Any) -> Any:
    return asked(f"/api/functions/{function}", {"arguments": list(arguments)})["result"]["value"]


def tree(folder: Path) -> dict[str, bytes]:
    return {
        str(path.relative_to(folder)): path.read_bytes()
        for path in folder.rglob("*")
        if path.is_file()
    }


# Listing and loading


def test_the_given_scenario_is_loaded_and_listed_first(asked: Any, shelf: Path) -> None:
    for name in ("zebra", "abc", ".hidden", "not a name"):
        (shelf / name).mkdir()
    (shelf / "file").write_text("")
    state = asked("/api/scenarios")
    assert state["loaded"] == "given"
    assert state["scenarios"] == ["given", "abc", "zebra"]
    assert (state["changed"], state["shelf"]) == (False, str(shelf))
    assert value(asked, "new_cookie_id") == 4294967295


def test_without_a_scenario_this_machine_answers(asked: Any) -> None:
    assert value(asked, "list_switch_port_statistics", "port1") == [
        {"port_name": "port1", "errin": 3}
    ]
    state = asked("/api/scenarios/load", {"name": None})
    assert (state["loaded"], state["folder"]) == (None, None)
    called = asked("/api/functions/list_switch_port_statistics", {"arguments": ["lo"]})
    assert (called["source"], called["result"]["value"][0]["port_name"]) == ("live", "lo")


def test_a_scenario_of_the_shelf_is_loaded(asked: Any, shelf: Path) -> None:
    (shelf / "mine").mkdir()
    (shelf / "mine" / f"{LG_STATE}.json").write_text('[{"group": "of mine"}]')
    assert asked("/api/scenarios/load", {"name": "mine"})["loaded"] == "mine"
    assert value(asked, "list_switch_lg_state") == [{"group": "of mine"}]
    assert value(asked, "new_cookie_id") != 4294967295


def test_a_scenario_that_cannot_be_used_is_refused_and_the_loaded_one_stays(
    asked: Any, shelf: Path
) -> None:
    (shelf / "broken").mkdir()
    (shelf / "broken" / f"{LG_STATE}.json").write_text('[\n{"group": ]')
    error = asked("/api/scenarios/load", {"name": "broken"}, status=422)["error"]
    assert (error["file"], error["line"]) == (f"{LG_STATE}.json", 2)
    assert "not JSON" in error["problem"]
    assert asked("/api/scenarios")["loaded"] == "given"
    assert value(asked, "new_cookie_id") == 4294967295


# Answers


def test_every_answer_is_listed_with_its_source(asked: Any) -> None:
    listed = {one["name"]: one for one in asked("/api/answers")["answers"]}
    assert set(scenario.SERVICES) <= set(listed)
    assert listed["build_switch_port_statistics"]["own"]
    assert listed[LG_STATE]["source"] == "recorded"
    assert not listed[LG_STATE]["own"]
    assert listed["build_system_flash_list"]["source"] == "live"
    assert listed["get system arp"]["own"]
    assert listed["get system arp"]["command"]
    assert not any(one["changed"] for one in listed.values())


LIVE_LINKS = {"build_switch_flapguard_status", "build_system_link_monitor_status"}


@pytest.mark.parametrize(
    "name",
    [
        pytest.param(name, marks=[pytest.mark.requires("netlink")] if name in LIVE_LINKS else [])
        for name in scenario.SERVICES
    ],
)
def test_what_is_answered_now_can_be_taken_as_it_stands(asked: Any, name: str) -> None:
    held = asked(f"/api/answers/{name}")
    taken = asked(f"/api/answers/{name}", {"text": held["text"]})
    assert taken["own"]
    assert taken["text"] == held["text"]


def test_an_edited_answer_counts_from_the_next_call_on(asked: Any, tmp_path: Path) -> None:
    before = tree(tmp_path / "given")
    held = asked(f"/api/answers/{LG_STATE}", {"text": '[{"group": "edited"}]'})
    assert held == {
        "name": LG_STATE,
        "own": True,
        "file": f"{LG_STATE}.json",
        "text": '[{"group": "edited"}]',
    }
    assert value(asked, "list_switch_lg_state") == [{"group": "edited"}]
    assert value(asked, "new_cookie_id") == 4294967295
    assert asked("/api/scenarios")["changed"]
    (changed,) = [one for one in asked("/api/answers")["answers"] if one["changed"]]
    assert changed["name"] == LG_STATE
    assert tree(tmp_path / "given") == before


def test_an_answer_is_taken_out_again(asked: Any) -> None:
    asked("/api/answers/aps_get_new_cookie_id", {"text": None})
    assert value(asked, "new_cookie_id") != 4294967295
    assert asked("/api/scenarios")["changed"]
    asked("/api/answers/aps_get_new_cookie_id", {"text": "4294967295"})
    assert not asked("/api/scenarios")["changed"]


WRONG = [
    (LG_STATE, "{", 1, "not JSON"),
    (LG_STATE, "[\n1,\n]", 3, "not JSON"),
    (LG_STATE, "", 1, "not JSON"),
    (LG_STATE, "[NaN]", None, "NaN is no JSON number"),
    (LG_STATE, '"\\ud800"', None, "half a surrogate pair is no character"),
    (LG_STATE, "\ud800", None, "half a surrogate pair is no character"),
    (LG_STATE, "[" * 100_000, None, "not JSON"),
    ("aps_get_new_cookie_id", "-1", None, "an integer, 0 to 4294967295"),
    ("aps_get_new_cookie_id", "true", None, "an integer, 0 to 4294967295"),
    ("serial_number_ascii", "7", None, "a text without NUL"),
    ("get system arp", "a\n\0", 2, "a NUL byte would end the text"),
]


@pytest.mark.parametrize(("name", "text", "line", "problem"), WRONG)
def test_an_answer_that_its_service_cannot_give_is_refused_and_nothing_changes(
    asked: Any, name: str, text: str, line: int | None, problem: str
) -> None:
    error = asked(f"/api/answers/{name}", {"text": text}, status=422)["error"]
    assert problem in error["problem"]
    assert error.get("line") == line
    assert not asked("/api/scenarios")["changed"]
    assert value(asked, "new_cookie_id") == 4294967295


@pytest.mark.parametrize("body", [{}, {"text": 7}, {"text": []}, {"value": "x"}])
def test_an_answer_is_a_text_or_none(asked: Any, body: dict[str, Any]) -> None:
    error = asked(f"/api/answers/{LG_STATE}", body, status=400)["error"]
    assert error["at"] == "text"


COMMANDS = [
    ("get system arp", "cli/get system arp.txt"),
    ("  get   system\tarp ", "cli/get system arp.txt"),
    ("show a/b", "cli/show a%2Fb.txt"),
    ("show 100%", "cli/show 100%25.txt"),
    (".hidden", "cli/%2Ehidden.txt"),
    ("../../escape", "cli/%2E.%2F..%2Fescape.txt"),
    ("/etc/passwd", "cli/%2Fetc%2Fpasswd.txt"),
    ("zeige grüße", "cli/zeige gr%C3%BC%C3%9Fe.txt"),
    ("x" * 127, f"cli/{'x' * 127}.txt"),
]


@pytest.mark.parametrize(("command", "file"), COMMANDS)
def test_a_command_is_answered_and_kept_under_a_name_of_its_own(
    asked: Any, tmp_path: Path, command: str, file: str
) -> None:
    held = asked(f"/api/answers/{command}", {"text": "printed\r\n"})
    assert held["file"] == file
    assert value(asked, "get_cli_command_output", command) == "printed\r\n"
    asked("/api/scenarios/save", {"name": "given"})
    assert (tmp_path / "given" / file).read_bytes() == b"printed\r\n"
    asked("/api/scenarios/load", {"name": "given"})
    assert value(asked, "get_cli_command_output", command) == "printed\r\n"


@pytest.mark.parametrize("name", [" ", "a\0b", "x" * 128])
def test_what_no_command_can_be_is_refused(asked: Any, name: str) -> None:
    error = asked(f"/api/answers/{name}", {"text": "x"}, status=422)["error"]
    assert "1 to 127 bytes" in error["problem"]


def test_a_command_that_no_file_can_be_named_after_is_refused(asked: Any) -> None:
    error = asked("/api/answers/" + "/" * 127, {"text": "x"}, status=422)["error"]
    assert "too long" in error["problem"]


def test_a_file_under_another_name_for_the_same_command_is_the_one_edited(
    asked: Any, shelf: Path
) -> None:
    (shelf / "mine" / "cli").mkdir(parents=True)
    (shelf / "mine" / "cli" / "get%20system%20arp.txt").write_text(ARP)
    asked("/api/scenarios/load", {"name": "mine"})
    held = asked("/api/answers/get system arp")
    assert (held["own"], held["file"]) == (True, "cli/get%20system%20arp.txt")
    asked("/api/answers/get system arp", {"text": "Address\n"})
    assert value(asked, "get_system_arp_result") == []


def test_output_that_is_no_text_is_left_to_its_file(asked: Any, shelf: Path) -> None:
    (shelf / "mine" / "cli").mkdir(parents=True)
    (shelf / "mine" / "cli" / "get system arp.txt").write_bytes(b"\xff")
    asked("/api/scenarios/load", {"name": "mine"})
    error = asked("/api/answers/get system arp", status=409)["error"]
    assert "edit the file itself" in error["problem"]


# Saving


def test_a_saved_scenario_holds_what_was_answered(asked: Any, shelf: Path) -> None:
    asked(f"/api/answers/{LG_STATE}", {"text": "[]"})
    asked("/api/answers/aps_get_new_cookie_id", {"text": None})
    state = asked("/api/scenarios/save", {"name": "new-one"})
    assert (state["loaded"], state["changed"]) == ("new-one", False)
    assert state["folder"] == str(shelf / "new-one")
    kept = tree(shelf / "new-one")
    assert kept[f"{LG_STATE}.json"] == b"[]"
    assert kept["cli/get system arp.txt"] == ARP.encode()
    assert "aps_get_new_cookie_id.json" not in kept
    loaded = scenario.load(shelf / "new-one")
    assert loaded.services[LG_STATE] == []


@pytest.mark.requires("netlink")
def test_saving_takes_out_what_is_answered_no_more_and_leaves_notes(
    asked: Any, tmp_path: Path
) -> None:
    given = tmp_path / "given"
    for note in ("README.md", ".notes", "cli/.notes"):
        (given / note).write_text("mine")
    asked("/api/answers/aps_get_new_cookie_id", {"text": None})
    asked("/api/answers/get system arp", {"text": None})
    before = tree(given)
    asked("/api/scenarios/save", {"name": "given"})
    gone = {"aps_get_new_cookie_id.json", "cli/get system arp.txt"}
    assert tree(given) == {name: held for name, held in before.items() if name not in gone}


def test_a_scenario_that_is_not_loaded_is_not_written_over(asked: Any, shelf: Path) -> None:
    (shelf / "other").mkdir()
    (shelf / "other" / f"{LG_STATE}.json").write_text("[1]")
    error = asked("/api/scenarios/save", {"name": "other"}, status=409)["error"]
    assert "there is a scenario other already" in error["problem"]
    assert tree(shelf) == {f"other/{LG_STATE}.json": b"[1]"}


NAMES = [
    "",
    ".",
    "..",
    "../escape",
    "a/b",
    "/etc",
    "a\\b/../../x",
    ".hidden",
    "a b",
    "-x/..",
    "x" * 65,
    "nul\0",
    "ü",
    "new\n",
]


@pytest.mark.parametrize("name", NAMES)
def test_what_is_no_name_is_neither_saved_nor_loaded(
    asked: Any, tmp_path: Path, shelf: Path, name: str
) -> None:
    before = tree(tmp_path)
    for path in ("/api/scenarios/save", "/api/scenarios/load"):
        error = asked(path, {"name": name}, status=422)["error"]
        assert "a scenario's name has letters" in error["problem"]
    assert tree(tmp_path) == before
    assert not any(shelf.iterdir())


@pytest.mark.parametrize("body", [{"name": 7}, {"name": ["x"]}])
def test_a_name_is_a_text(asked: Any, body: dict[str, Any]) -> None:
    for path in ("/api/scenarios/save", "/api/scenarios/load"):
        assert asked(path, body, status=400)["error"]["at"] == "name"


# Links


@pytest.fixture
def outside(tmp_path: Path) -> Path:
    """A folder that is nobody's scenario, with a file that shall stay as it is."""
    folder = tmp_path / "outside"
    (folder / "cli").mkdir(parents=True)
    (folder / f"{LG_STATE}.json").write_text('["secret"]')
    return folder


def test_a_scenario_that_is_a_link_is_neither_listed_nor_loaded_nor_saved(
    asked: Any, shelf: Path, outside: Path
) -> None:
    before = tree(outside)
    (shelf / "link").symlink_to(outside)
    assert "link" not in asked("/api/scenarios")["scenarios"]
    for path in ("/api/scenarios/load", "/api/scenarios/save"):
        error = asked(path, {"name": "link"}, status=409)["error"]
        assert "links are not followed" in error["problem"]
    assert tree(outside) == before


def test_nothing_is_read_through_a_link_in_a_scenario(
    asked: Any, shelf: Path, outside: Path
) -> None:
    (shelf / "mine").mkdir()
    (shelf / "mine" / f"{LG_STATE}.json").symlink_to(outside / f"{LG_STATE}.json")
    assert (
        "links are not" in asked("/api/scenarios/load", {"name": "mine"}, 409)["error"]["problem"]
    )
    (shelf / "mine" / f"{LG_STATE}.json").unlink()
    (shelf / "mine" / "cli").symlink_to(outside)
    assert (
        "links are not" in asked("/api/scenarios/load", {"name": "mine"}, 409)["error"]["problem"]
    )


def test_nothing_is_written_through_a_link_in_a_scenario(
    asked: Any, shelf: Path, outside: Path
) -> None:
    asked(f"/api/answers/{LG_STATE}", {"text": '["mine"]'})
    asked("/api/scenarios/save", {"name": "mine"})
    before = tree(outside)
    # Links that came after it was loaded.
    (shelf / "mine" / f"{LG_STATE}.json").unlink()
    (shelf / "mine" / f"{LG_STATE}.json").symlink_to(outside / f"{LG_STATE}.json")
    asked("/api/scenarios/save", {"name": "mine"})
    assert tree(outside) == before
    assert not (shelf / "mine" / f"{LG_STATE}.json").is_symlink()
    for path in (shelf / "mine" / "cli").iterdir():
        path.unlink()
    (shelf / "mine" / "cli").rmdir()
    (shelf / "mine" / "cli").symlink_to(outside / "cli")
    error = asked("/api/scenarios/save", {"name": "mine"}, status=409)["error"]
    assert "links are not followed" in error["problem"]
    assert tree(outside) == before


def test_a_pipe_in_a_scenario_holds_nobody_up(asked: Any, shelf: Path) -> None:
    (shelf / "mine").mkdir()
    pipe = shelf / "mine" / f"{LG_STATE}.json"
    os.mkfifo(pipe)
    # Opening it waits for somebody who writes, if it waits at all: let it end then, and be seen.
    late = threading.Timer(10, lambda: os.close(os.open(pipe, os.O_WRONLY | os.O_NONBLOCK)))
    late.start()
    assert asked("/api/scenarios/load", {"name": "mine"}, status=422)["error"]["problem"]
    assert not late.finished.is_set(), "it was waited for"
    late.cancel()


def test_a_scenario_of_too_many_bytes_is_refused(
    shelf: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(scenario_store, "_MOST_BYTES", 10)
    (shelf / "mine" / "cli").mkdir(parents=True)
    (shelf / "mine" / "a.json").write_text("12345")
    (shelf / "mine" / "cli" / "b.txt").write_text("12345")
    assert Shelf(shelf).read("mine") == {"a.json": b"12345", "cli/b.txt": b"12345"}
    (shelf / "mine" / "cli" / "b.txt").write_text("123456")
    with pytest.raises(Problem, match="more than 10 bytes"):
        Shelf(shelf).read("mine")


def test_a_file_that_cannot_be_replaced_leaves_no_draft_behind(
    asked: Any, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    before = tree(tmp_path / "given")

    def full(*_: Any, **__: Any) -> None:
        raise OSError(28, "No space left on device")

    monkeypatch.setattr(os, "replace", full)
    error = asked("/api/scenarios/save", {"name": "given"}, status=409)["error"]
    assert error["problem"] == "scenario given: no space left on device"
    assert tree(tmp_path / "given") == before


def test_a_shelf_that_cannot_be_written_to_is_told(asked: Any, tmp_path: Path, shelf: Path) -> None:
    shelf.rmdir()
    shelf.write_text("")  # a file in its place
    error = asked("/api/scenarios/save", {"name": "mine"}, status=409)["error"]
    assert error["problem"].startswith("scenario mine: ")


def test_an_unreadable_answer_leaves_the_old_device_open(asked: Any) -> None:
    asked(f"/api/answers/{LG_STATE}", {"text": "{"}, status=422)
    assert value(asked, "get_token") == value(asked, "get_token")
    assert len(value(asked, "get_token")) == 64


def test_the_secret_stays_the_same_when_answers_are_edited(asked: Any) -> None:
    before = value(asked, "get_token")
    asked(f"/api/answers/{LG_STATE}", {"text": "[]"})
    assert value(asked, "get_token") == before
