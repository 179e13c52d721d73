"""The page: widths, colors and accessibility of every state."""

from __future__ import annotations

from collections.abc import Iterator
from importlib.resources import files
from typing import Any

import pytest

from tests.support.browser import NARROW, WIDE, Visit

# Place, and what to do there: press a button, or open a dialog with a key.
STATES: list[tuple[str, str | None]] = [
    ("functions", None),
    ("functions/list_switch_lg_state", "Call"),
    ("functions/get_bfd_neighbor", "Call"),
    ('functions/get_cli_command_output?arguments=["get nonsense"]', "Call"),
    ("functions/list_switch_module_summary", "Call"),
    ("functions/get_routing_table_result", "Call"),
    ("functions/no_such_function", None),
    ("functions", "?"),
    ("functions", "Control+k"),
    ("watch", None),
    ("watch/list_switch_port_statistics", None),
    ("watch/list_bfd_neighbor", None),
    ("watch/list_system_link_monitor_status", None),
    ("watch/list_switch_trunk_state", None),
    ("parse", "Parse"),
    ("compare", None),
    ("scenarios", None),
    ("scenarios/build_system_interface_physical", None),
]
READY = {
    "functions": "form.call, [role=alert]",
    "watch": ".choice-cards, .watch-tools .badge",
    "parse": "#command-output",
    "compare": ".comparison tbody tr",
    "scenarios": ".reply-editor, .editor .empty",
}
AXE = """
async (rules) => {
  const runOnly = rules ? { runOnly: { type: "rule", values: rules } } : {};
  const { passes, violations } = await axe.run(document, runOnly);
  if (!passes.length) throw new Error("no rule applied");
  return violations.flatMap(({ id, nodes }) => nodes.map(({ html }) => `${id}: ${html}`));
}
"""


def reach(visit: Visit, place: str, action: str | None) -> None:
    """Bring the page into a state without a reload."""
    visit.page.evaluate("document.querySelectorAll('dialog').forEach((one) => one.close())")
    visit.page.evaluate("location.hash = '#/watch'")
    visit.page.wait_for_selector(".choice-cards")
    visit.page.evaluate("place => { location.hash = `#/${place}`; }", place)
    visit.page.wait_for_selector(f"#work :is({READY[place.partition('/')[0].partition('?')[0]]})")
    if action in ("?", "Control+k"):
        visit.page.keyboard.press(action)
        visit.page.wait_for_selector("dialog :is(dl, code)")
    elif action is not None:
        if action == "Parse":
            visit.press("Use a sample")
        visit.press(action)
        visit.page.wait_for_selector(".result, .exception")


def make_two_calls(visit: Visit) -> str:
    """Return the address that compares two calls with differences."""
    visit.open()
    for group in ("lg1", "lg2"):
        visit.api.set_reply("build_switch_lg_state", [{"group": group, "state": "up"}])
        visit.page.evaluate("location.hash = '#/functions/list_switch_lg_state'")
        visit.page.wait_for_selector("form.call >> text=list_switch_lg_state() ->")
        visit.call()
    visit.api("DELETE", "/api/replies/build_switch_lg_state")
    script = "import('/static/core/recent.js').then((one) => one.recent().map(({ id }) => id))"
    right, left = visit.page.evaluate(script)
    return f"compare?left={left}&right={right}"


@pytest.fixture
def states(visit: Visit) -> Iterator[tuple[str, Any]]:
    """The states, each with a function that brings the page into it."""
    compare = make_two_calls(visit)
    axe = files("axe_playwright_python") / "axe.min.js"
    visit.page.evaluate(axe.read_text())

    def all_states() -> Iterator[tuple[str, Any]]:
        for place, action in STATES:
            reach(visit, compare if place == "compare" else place, action)
            yield f"{place}{f' {action}' if action else ''}", visit

    return all_states()


def test_every_state_is_accessible_and_fits(states: Any) -> None:
    found: dict[str, Any] = {}
    for state, visit in states:
        for width, size in [(1280, WIDE), (360, NARROW)]:
            visit.page.set_viewport_size(size)
            for scheme in ("light", "dark"):
                visit.page.emulate_media(color_scheme=scheme)
                # Only contrast depends on the colors.
                rules = None if scheme == "light" else ["color-contrast"]
                findings = visit.page.evaluate(AXE, rules)
                if visit.overflow:
                    findings.append(f"{visit.overflow} pixels wider than the window")
                if findings:
                    found[f"{state}, {width}, {scheme}"] = findings
                visit.screenshot(f"{width}-{scheme}-{state}")
        visit.page.set_viewport_size(WIDE)
    assert found == {}


def test_theme_is_chosen_and_kept(open_window: Any, url: str) -> None:
    visit = open_window(url, color_scheme="light")
    button = visit.page.locator("#theme")

    def theme() -> tuple[str | None, Any]:
        color = "getComputedStyle(document.body).backgroundColor"
        return button.get_attribute("aria-label"), visit.page.evaluate(color)

    visit.open("parse")
    auto, light = theme()
    assert auto == "Colors: auto"
    assert light == "rgb(246, 245, 241)"
    button.click()
    assert theme() == ("Colors: light", light)
    button.click()
    label, dark = theme()
    assert label == "Colors: dark"
    assert dark == "rgb(20, 23, 26)"
    visit.page.reload()
    visit.page.wait_for_selector("#work")
    assert theme() == ("Colors: dark", dark)
    button.click()
    assert theme() == ("Colors: auto", light)


def test_page_loads_only_from_the_console(visit: Visit) -> None:
    requests: list[str] = []
    visit.page.on("request", lambda request: requests.append(request.url))
    for place in ("functions", "watch", "compare", "parse", "scenarios"):
        visit.open(place)
    assert len(requests) > 30
    assert [one for one in requests if not one.startswith(visit.url)] == []
