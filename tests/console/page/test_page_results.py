"""The page: results as table, upright, tree and JSON; sorted, filtered, copied, downloaded."""

from __future__ import annotations

import json
import time
from typing import Any

import pytest

from tests.support.browser import HOSTILE, Visit

ROWS = [
    {"group": f"lg{number}", "state": "up" if number % 7 else "down", "changes": number * 37 % 1000}
    for number in range(10_000)
]


@pytest.fixture
def show(visit: Visit) -> Any:
    """Shows a value as the result of `list_switch_lg_state`."""

    def show(value: Any) -> Visit:
        visit.api.set_reply("build_switch_lg_state", value)
        visit.open("functions/list_switch_lg_state")
        visit.call()
        return visit

    return show


def column(visit: Visit, number: int, count: int = 4) -> list[str]:
    """Return the first texts of a column."""
    return visit.texts(f".table tbody tr:not(.spacer) > td:nth-child({number})")[:count]


def test_list_of_dictionaries_is_shown_as_table_tree_and_json(visit: Visit) -> None:
    visit.open("functions/list_switch_lg_state")
    visit.call()
    columns = visit.texts(".table > table > thead th")
    assert columns == ["group", "number", "blank", "empty", "flags", "hidden"]
    # No markup, no rounded digits, visible white space.
    assert visit.texts(".table > table > tbody > tr:first-child > td") == [
        "<img src=x onerror=alert(1)>",
        "9007199254740993",
        "·padded·",
        '""',
        "True\nNone\n1.5",
        "a\\u202eb\\u200bc\\x07",
    ]
    assert visit.texts(".below table th") == ["port", "rate"]
    visit.screenshot("table")
    visit.press("JSON")
    shown = visit.text(".json-view").replace("\\\\", "\\")
    assert json.loads(shown) == json.loads(HOSTILE)
    visit.press("Tree")
    assert "9007199254740993" in visit.text(".result .tree >> nth=0")
    visit.screenshot("tree")


def test_dictionary_is_shown_as_a_tree(visit: Visit) -> None:
    visit.open("functions/get_routing_table_result")
    visit.call()
    assert visit.page.get_by_role("button", name="Table").count() == 0
    assert visit.texts(".result dt")[:3] == ["entry", "distance", "metric"]
    assert "··Known via static" in visit.text(".result")
    assert visit.text(".result header").split()[:4] == ["Returned", "dict", "of", "6"]


def test_hidden_characters_are_shown_as_escapes(show: Any) -> None:
    visit = show([{"k\u200fey": "a\u202eb", "b": ["\u2066", "\x1b[2J", "\ue000", "\u00a0"]}])
    chips = visit.texts(".result .hidden-character")
    assert chips == ["\\u200f", "\\u202e", "\\u2066", "\\x1b", "\\ue000", "\\xa0"]
    title = visit.page.locator(".result .hidden-character >> nth=1").get_attribute("title")
    assert title == "U+202E"
    visit.press("JSON")
    assert "\\u202e" in visit.texts(".json-view .hidden-character")
    body = visit.page.evaluate("document.getElementById('work').innerText")
    assert not set(body) & set("\u200f\u202e\u2066\x1b\ue000\u00a0")


def test_ten_thousand_rows_are_painted_in_under_a_second(show: Any) -> None:
    visit = show([])
    visit.api.set_reply("build_switch_lg_state", ROWS)
    painted = visit.page.evaluate(
        """async () => {
          const { resultPanel } = await import('/static/results/outcome.js');
          const { parseJSON } = await import('/static/core/api.js');
          const response = await fetch('/api/functions/list_switch_lg_state',
            { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: '{}' });
          const text = await response.text();
          const start = performance.now();
          const { result } = parseJSON(text);
          document.querySelector('.output').replaceChildren(resultPanel(result, 'rows'));
          await new Promise((done) => requestAnimationFrame(() => setTimeout(done)));
          return performance.now() - start;
        }"""
    )
    assert painted < 1000
    assert visit.texts(".result .view-tools .note") == ["10,000 rows"]
    assert visit.page.locator(".table tbody tr").count() < 800
    region = visit.page.locator(".table")
    assert region.evaluate("one => one.scrollHeight") > 10_000 * 20
    region.evaluate("one => one.scrollTo(0, one.scrollHeight)")
    visit.page.wait_for_selector("td >> text=lg9999")
    head = visit.page.locator(".table thead th").first.bounding_box()
    box = region.bounding_box()
    assert abs(head["y"] - box["y"]) < 2
    assert visit.page.locator(".table tbody tr").count() < 800
    visit.screenshot("10000-rows")


def test_long_result_as_tree_and_json_stays_folded(show: Any) -> None:
    visit = show(ROWS[:2500])
    for view, selector in [("JSON", ".json-view"), ("Tree", ".result .chunks")]:
        started = time.monotonic()
        visit.press(view)
        visit.page.wait_for_selector(selector)
        assert time.monotonic() - started < 5
        assert visit.page.locator(f"{selector} *").count() < 6000
        group = visit.page.locator("details.chunk", has_text="2400 to 2499")
        group.locator("summary").first.click()
        group.get_by_text("lg2499").wait_for()


def test_table_is_sorted_by_a_column(show: Any) -> None:
    visit = show([{"n": n, "port": f"port{n}"} for n in (10, 9, 2, 33)] + [{"port": "port4"}])
    header = visit.page.locator("th", has_text="port")
    visit.press("port")
    assert column(visit, 2, 5) == ["port2", "port4", "port9", "port10", "port33"]
    assert header.get_attribute("aria-sort") == "ascending"
    visit.press("port")
    assert column(visit, 2, 5) == ["port33", "port10", "port9", "port4", "port2"]
    visit.press("n")
    assert column(visit, 1, 5) == ["2", "9", "10", "33", "\u2013"]
    visit.press("n")
    assert column(visit, 1, 5) == ["33", "10", "9", "2", "\u2013"]
    visit.press("n")
    assert column(visit, 1, 5) == ["10", "9", "2", "33", "\u2013"]


def test_table_is_filtered_and_columns_chosen(show: Any) -> None:
    visit = show(ROWS[:300])
    visit.page.get_by_label("Filter the rows").fill("lg17 up")
    visit.until("() => document.querySelector('.view-tools .note').textContent.includes(' of ')")
    assert visit.text(".result .view-tools .note") == "10 of 300 rows"
    assert column(visit, 1, 2) == ["lg17", "lg170"]
    visit.page.locator(".menu > summary", has_text="Columns").click()
    visit.page.get_by_label("state").uncheck()
    assert visit.texts(".table thead th") == ["group", "changes"]
    visit.page.get_by_label("Filter the rows").fill("no such row")
    visit.page.wait_for_selector(".table.nothing")
    # The next result keeps the columns.
    visit.page.keyboard.press("Escape")
    visit.call()
    visit.page.wait_for_selector("tbody td")
    assert visit.texts(".table thead th") == ["group", "changes"]


def test_few_rows_with_many_columns_stand_upright(show: Any) -> None:
    visit = show([{f"column{n}": n for n in range(12)}] * 2)
    assert visit.texts(".upright tr:first-child > *") == ["column0", "0", "0"]
    visit.press("Table")
    assert len(visit.texts(".table thead th")) == 12


def test_result_is_downloaded_as_csv_and_json(show: Any) -> None:
    rows = [{"a": 'x"y', "b": "=1+1", "c": [1]}, {"a": "-3.1", "d": None, "c": 2**60}]
    visit = show(rows)
    name, text = visit.download("Download", "CSV")
    assert name == "list_switch_lg_state.csv"
    assert text == f'a,b,c,d\r\n"x""y",\'=1+1,[1],\r\n-3.1,,{2**60},\r\n'
    name, text = visit.download("Download", "JSON")
    assert name == "list_switch_lg_state.json"
    assert json.loads(text) == rows


def test_result_is_copied_as_code(open_window: Any, url: str) -> None:
    visit = open_window(url, permissions=["clipboard-read", "clipboard-write"])
    visit.open('functions/list_switch_trunk_state?arguments=["storage"]')
    visit.call()

    def copied(item: str) -> str:
        visit.choose("Copy", item)
        visit.page.locator(".menu-items button", has_text="Copied").last.wait_for()
        visit.page.keyboard.press("Escape")
        return str(visit.page.evaluate("navigator.clipboard.readText()"))

    assert copied("Python call") == "list_switch_trunk_state('storage')"
    test = copied("pytest test")
    assert test.startswith("def test_list_switch_trunk_state(simulator):\n")
    compile(test, "copied", "exec")
    assert copied("curl command").startswith("curl ")
    assert json.loads(copied("JSON"))[0]["trunk_name"] == "storage"
    assert eval(copied("Python value"))[0]["trunk_name"] == "storage"


def test_json_is_colored_and_folds(show: Any) -> None:
    visit = show({"a": {"b": [1, None, "t"]}, "c": True})
    visit.press("JSON")
    assert visit.texts(".j-key") == ['"a"', '"b"', '"c"']
    colors = visit.page.evaluate(
        "['.j-key', '.j-text', '.j-number', '.j-word']"
        ".map((one) => getComputedStyle(document.querySelector(one)).color)"
    )
    assert len(set(colors)) == 4
    visit.press("Fold all")
    assert not visit.page.locator(".j-number").is_visible()
    visit.press("Unfold")
    visit.press("Unfold")
    assert visit.page.locator(".j-number").is_visible()


def test_reply_of_a_native_call_is_kept_in_the_scenario(visit: Visit) -> None:
    visit.open("functions/list_switch_module_summary")
    visit.call()
    visit.press("Keep in scenario")
    visit.page.get_by_text("Kept as the scenario's reply").click()
    visit.page.wait_for_selector(".reply-editor")
    reply = visit.api("GET", "/api/replies/build_switch_modules_summary")
    assert reply["overridden"]
    assert json.loads(reply["text"])[0]["port_name"] == "port25"
    assert "From the scenario, file" in visit.text(".editor-notes")
