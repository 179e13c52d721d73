"""The page: scenarios, the list of replies and their editor."""

from __future__ import annotations

import itertools
import json
from pathlib import Path
from typing import Any

import pytest

from tests.support.browser import Visit
from tests.support.console import ARP

LG, LLDP = "build_switch_lg_state", "build_switch_lldp_state"
numbers = itertools.count()


@pytest.fixture
def store(page_server: Any) -> Path:
    """The directory with the saved scenarios."""
    _, directory = page_server
    return Path(directory) / "state" / "scenarios"


@pytest.fixture
def name(visit: Visit) -> str:
    """A new scenario with the replies of `other`, which is loaded."""
    name = f"mine{next(numbers)}"
    visit.api("POST", "/api/scenarios/other/duplicate", {"to": name})
    visit.api("PUT", "/api/scenarios/current", {"name": name})
    return name


def edit(visit: Visit, reply: str, text: str | None = None) -> Any:
    """Open the editor of a reply and change its text."""
    visit.page.locator(f"[data-reply='{reply}']").click()
    area = visit.page.get_by_label(f"Reply of {reply}")
    area.wait_for()
    if text is not None:
        area.fill(text)
    return area


def open_scenarios(visit: Visit) -> None:
    visit.open("scenarios")
    visit.page.wait_for_selector("[data-reply]")


def choose_action(visit: Visit, scenario: str, action: str) -> None:
    """Choose from the menu of a scenario."""
    item = visit.page.locator(f"[data-scenario='{scenario}']")
    item.locator("summary").click()
    item.get_by_role("button", name=action).click()


def badges(visit: Visit, reply: str) -> list[str]:
    return visit.texts(f"[data-reply='{reply}'] .badge")


def test_reply_is_edited_used_and_saved(visit: Visit, name: str, store: Path) -> None:
    open_scenarios(visit)
    assert visit.text(".choices [aria-pressed=true] span") == name
    edit(visit, LG, '[{"group": "edited"}]')
    assert badges(visit, LG) == ["draft", "recorded"]
    visit.press("Use this reply")
    visit.page.wait_for_selector(f"[data-reply={LG}] .badge >> text=edited")
    assert badges(visit, LG) == ["edited", "scenario"]
    assert visit.focused("tagName") == "TEXTAREA"
    visit.page.wait_for_selector("#loaded .badge >> text=unsaved")
    visit.screenshot("scenario-edited")
    assert visit.api("POST", "/api/functions/list_switch_lg_state", {})["result"]["value"] == [
        {"group": "edited"}
    ]
    visit.press("Save")
    visit.page.wait_for_selector("#loaded .badge", state="detached")
    assert (store / name / f"{LG}.json").read_text() == '[{"group": "edited"}]'
    assert (store / name / "cli" / "get system arp.txt").read_text() == ARP
    visit.press("Remove from the scenario")
    visit.page.wait_for_selector(f"[data-reply={LG}] .badge >> text=removed")


def test_rejected_reply_is_shown_at_its_line(visit: Visit, name: str) -> None:
    open_scenarios(visit)
    area = edit(visit, LG, '[\n  {"group": ]\n]')
    visit.press("Use this reply")
    visit.page.wait_for_selector("[role=alert]")
    assert "not JSON" in visit.text("[role=alert] .message")
    assert "line 2" in visit.text("[role=alert] .hint")
    start, end = area.evaluate("area => [area.selectionStart, area.selectionEnd]")
    assert area.input_value()[start:end] == '  {"group": ]'
    mark = visit.page.locator(".line-mark").bounding_box()
    numbers_box = visit.page.locator(".numbers").bounding_box()
    assert abs(mark["y"] - (numbers_box["y"] + 20)) <= 1
    visit.screenshot("scenario-rejected")
    area.fill("[]")
    assert not visit.page.locator(".line-mark").is_visible()
    area.fill("\n" * 299 + "[}")
    visit.press("Use this reply")
    visit.page.wait_for_selector(".line-mark", state="visible")
    assert area.evaluate("area => area.scrollTop") > 5000
    mark, area_box = visit.page.locator(".line-mark").bounding_box(), area.bounding_box()
    assert area_box["y"] <= mark["y"] <= area_box["y"] + area_box["height"]


def test_drafts_are_kept_for_each_reply(visit: Visit, name: str) -> None:
    open_scenarios(visit)
    edit(visit, LG, "[1]")
    edit(visit, LLDP, "[2]")
    assert badges(visit, LG)[0] == badges(visit, LLDP)[0] == "draft"
    assert edit(visit, LG).input_value() == "[1]"
    visit.page.locator("[data-tab=parse]").click()
    visit.page.wait_for_selector("#command-output")
    assert visit.text("#loaded .badge") == "unsaved, 2 drafts"
    visit.page.go_back()
    visit.page.wait_for_selector(".reply-editor")
    assert visit.page.get_by_label(f"Reply of {LG}").input_value() == "[1]"
    assert edit(visit, LLDP).input_value() == "[2]"
    visit.screenshot("scenario-drafts")
    visit.press("Discard the draft")
    assert badges(visit, LLDP) == ["recorded"]
    assert visit.text("#loaded .badge") == "unsaved, 1 draft"
    assert not visit.api("GET", f"/api/replies/{LG}")["overridden"]


def test_drafts_are_saved_with_save(visit: Visit, name: str, store: Path) -> None:
    open_scenarios(visit)
    edit(visit, LG, "[1]")
    edit(visit, LLDP, "[2]")
    visit.page.keyboard.press("Control+s")
    visit.page.wait_for_selector(".badge >> text=draft", state="detached")
    assert (store / name / f"{LG}.json").read_text() == "[1]"
    assert (store / name / f"{LLDP}.json").read_text() == "[2]"
    assert not visit.api("GET", "/api/status")["modified"]


def test_draft_that_is_rejected_stops_the_save(visit: Visit, name: str, store: Path) -> None:
    open_scenarios(visit)
    edit(visit, LG, "[}")
    edit(visit, LLDP, "[2]")
    visit.press("Save")
    visit.page.wait_for_selector("[role=alert]")
    assert visit.text(".reply-editor > header h2") == LG
    assert badges(visit, LG)[0] == "draft"
    assert not (store / name / f"{LG}.json").exists()
    assert visit.page.get_by_label(f"Reply of {LG}").input_value() == "[}"


def test_loading_asks_before_it_discards(visit: Visit, name: str) -> None:
    open_scenarios(visit)
    edit(visit, LG, "[1]")
    visit.page.locator(".choices button", has_text="This machine").click()
    assert "1 draft" in visit.text("dialog")
    visit.press("Cancel")
    assert visit.text(".choices [aria-pressed=true] span") == name
    assert badges(visit, LG)[0] == "draft"
    visit.page.locator(".choices button", has_text="This machine").click()
    visit.press("Discard and load")
    visit.page.wait_for_selector(".choices [aria-pressed=true] >> text=This machine")
    assert badges(visit, LG) == ["recorded"]
    assert visit.focused().startswith("This machine")


def test_leaving_the_window_asks_for_drafts(visit: Visit, name: str) -> None:
    open_scenarios(visit)
    kinds: list[str] = []
    visit.page.on("dialog", lambda dialog: kinds.append(dialog.type))
    visit.page.reload()
    assert kinds == []
    visit.page.wait_for_selector("[data-reply]")
    edit(visit, LG, "[1]")
    visit.page.reload()
    assert kinds == ["beforeunload"]


def test_reply_that_is_late_does_not_fill_another_editor(visit: Visit, name: str) -> None:
    open_scenarios(visit)
    held: list[Any] = []
    visit.page.route(f"**/api/replies/{LG}", lambda route: held.append(route))
    visit.page.locator(f"[data-reply={LG}]").click()
    visit.until("() => document.querySelector('.editor').textContent === 'Loading …'")
    while not held:
        visit.page.wait_for_timeout(10)
    area = edit(visit, LLDP)
    held[0].continue_()
    visit.page.wait_for_load_state("networkidle")
    assert visit.text(".reply-editor h2") == LLDP
    assert "chassis_id" in area.input_value()


def test_scenario_is_renamed_duplicated_and_deleted(visit: Visit, store: Path) -> None:
    old, new = f"old{next(numbers)}", f"new{next(numbers)}"
    visit.api("POST", "/api/scenarios/other/duplicate", {"to": old})
    open_scenarios(visit)
    choose_action(visit, old, "Rename")
    visit.page.get_by_label("New name").fill(new)
    visit.page.keyboard.press("Enter")
    visit.page.wait_for_selector(f"[data-scenario={new}]")
    assert not (store / old).exists()
    choose_action(visit, new, "Duplicate")
    visit.page.locator("dialog .primary").click()
    visit.page.wait_for_selector(f"[data-scenario={new}-copy]")
    assert (store / f"{new}-copy" / "cli" / "get system arp.txt").read_text() == ARP
    choose_action(visit, new, "Delete")
    assert ".trash" in visit.text("dialog")
    visit.screenshot("scenario-delete")
    visit.page.locator("dialog .primary").click()
    visit.page.wait_for_selector(f"[data-scenario={new}]", state="detached")
    assert not (store / new).exists()
    choose_action(visit, "page", "Rename")
    visit.page.locator("dialog .primary").click()
    visit.page.wait_for_selector("[role=alert]")


def test_scenario_is_exported_and_imported(visit: Visit, name: str, tmp_path: Path) -> None:
    open_scenarios(visit)
    with visit.page.expect_download() as saved:
        choose_action(visit, name, "Export")
    assert saved.value.suggested_filename == f"{name}.zip"
    archive = tmp_path / "imported.zip"
    saved.value.save_as(archive)
    imported = f"imported{next(numbers)}"
    with visit.page.expect_file_chooser() as chooser:
        visit.press("Import an archive")
    chooser.value.set_files(archive)
    field = visit.page.get_by_label("Name of the scenario")
    assert field.input_value() == "imported"
    field.fill(imported)
    visit.page.keyboard.press("Enter")
    visit.page.wait_for_selector(f"[data-scenario={imported}]")
    files = [
        sorted(file["name"] for file in visit.api("GET", f"/api/scenarios/{one}")["files"])
        for one in (name, imported)
    ]
    assert files[0] == files[1] != []


def test_scenario_that_changed_on_disk_is_not_overwritten(
    visit: Visit, name: str, store: Path
) -> None:
    file = store / name / "build_system_interface_physical.json"
    open_scenarios(visit)
    edit(visit, "build_system_interface_physical", "[1]")
    file.write_text('[{"interface": []}]')
    visit.press("Save")
    visit.page.wait_for_selector(f"[role=alert] >> text={file.name}")
    visit.screenshot("scenario-changed-on-disk")
    assert file.read_text() == '[{"interface": []}]'
    visit.press("Overwrite these files")
    visit.page.wait_for_selector("#loaded .badge", state="detached")
    assert file.read_text() == "[1]"


def test_change_by_another_window_is_shown(visit: Visit, name: str) -> None:
    open_scenarios(visit)
    area = edit(visit, LG)
    visit.api.set_reply(LG, [{"group": "theirs"}])
    visit.until("area => area.value.includes('theirs')", area.element_handle())
    assert badges(visit, LG) == ["edited", "scenario"]
    assert visit.text("#loaded .badge") == "unsaved"
    area.fill('[{"group": "mine"}]')
    visit.api.set_reply(LG, [{"group": "theirs again"}])
    visit.page.wait_for_selector(".remark >> text=Another window changed this reply")
    assert area.input_value() == '[{"group": "mine"}]'
    visit.press("Use this reply")
    visit.page.wait_for_selector("[role=alert]")
    visit.press("Use mine")
    visit.page.wait_for_selector("[role=alert]", state="detached")
    assert json.loads(visit.api("GET", f"/api/replies/{LG}")["text"]) == [{"group": "mine"}]


def test_call_of_another_window_is_shown(visit: Visit) -> None:
    status = {"revision": 1, "scenario": "x", "modified": False, "waiting": 0}
    running = {"function": "list_bfd_neighbor", "seconds": 3.2}
    visit.page.route(
        "**/api/status", lambda route: route.fulfill(json={**status, "running": running})
    )
    visit.open()
    visit.page.wait_for_selector("#busy >> text=list_bfd_neighbor runs for 3 s")


def test_replies_are_filtered_by_name_and_source(visit: Visit, name: str) -> None:
    open_scenarios(visit)
    replies = visit.api("GET", "/api/replies")["replies"]
    assert visit.page.locator("[data-reply]").count() == len(replies)
    visit.page.get_by_label("Where they come from").get_by_role("button", name="Scenario").click()
    overridden = {one["name"] for one in replies if one["overridden"]}
    assert set(visit.texts("[data-reply] code")) == overridden
    visit.page.get_by_label("Where they come from").get_by_role("button", name="All").click()
    visit.page.get_by_label("Filter the replies").fill("arp")
    visit.until("() => document.querySelectorAll('[data-reply]').length === 1")
    visit.page.get_by_label("Filter the replies").fill("nothing")
    visit.page.wait_for_selector("text=No reply is like this.")


def test_command_that_is_not_listed_can_be_edited(visit: Visit, name: str) -> None:
    open_scenarios(visit)
    visit.page.get_by_label("Another command").fill("get system uptime")
    visit.page.get_by_label("Another command").press("Enter")
    area = visit.page.get_by_label("Reply of get system uptime")
    area.fill("up 3 days\n")
    area.press("Control+Enter")
    visit.page.wait_for_selector("[data-reply='get system uptime']")


def test_invalid_scenario_name_is_reported(visit: Visit, name: str) -> None:
    open_scenarios(visit)
    for typed, message in [("../escape", "no slash"), ("a b", "a scenario name consists of")]:
        visit.page.get_by_label("Name to save under").fill(typed)
        visit.press("Save")
        visit.page.wait_for_selector(f"[role=alert] >> text={message}")


def test_hidden_characters_of_a_reply_are_named(visit: Visit, name: str) -> None:
    open_scenarios(visit)
    edit(visit, "get system arp", "a\nb\u202ec\u200b\n")
    assert visit.text(".editor-notes .remark") == (
        "Hidden characters: \\u202e in line 2 \\u200b in line 2"
    )


def test_editor_keeps_crlf_line_ends(visit: Visit, name: str, store: Path) -> None:
    file = store / name / "cli" / "get system arp.txt"
    file.write_bytes(ARP.replace("\n", "\r\n").encode())
    visit.api("PUT", "/api/scenarios/current", {"name": name})
    open_scenarios(visit)
    area = edit(visit, "get system arp")
    area.fill(area.input_value() + "192.0.2.99 1 02:00:00:00:00:01 port9\n")
    visit.press("Save")
    visit.page.wait_for_selector(".badge-modified", state="detached")
    assert file.read_bytes().count(b"\r\n") == file.read_bytes().count(b"\n") == 3
