"""The console's page in headless Chromium.

The tests leave screenshots of the page's states in build/screenshots. Without a browser they are
skipped with a reason.
"""

from __future__ import annotations

import json
import os
import re
import shutil
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest

from tests.support.console import ARP, ROUTING, SCENARIO
from tests.support.function_table import FUNCTIONS

playwright = pytest.importorskip("playwright.sync_api", reason="playwright is not installed")

CHROMIUM = shutil.which("chromium")
SCREENSHOTS = Path(__file__).parents[2] / "build" / "screenshots"
WIDE, NARROW = {"width": 1280, "height": 860}, {"width": 360, "height": 740}
TIMEOUT_MS = 15_000

if CHROMIUM is None:
    pytest.skip("no Chromium: tests/console/browser/bootstrap installs it", allow_module_level=True)
if os.environ.get("LD_PRELOAD"):
    pytest.skip("a browser does not run with the sanitizer preloaded", allow_module_level=True)

pytestmark = pytest.mark.xdist_group("browser")  # one browser for all tests

HOSTILE = json.dumps(
    [
        {
            "group": "<img src=x onerror=alert(1)>",
            "number": 9007199254740993,
            "blank": " padded ",
            "empty": "",
            "flags": [True, None, 1.5],
            "members": [{"port": "p1", "rate": 1}, {"port": "p2"}],
        }
    ]
)


@pytest.fixture(scope="module")
def browser() -> Iterator[Any]:
    """The browser."""
    with playwright.sync_playwright() as driver:
        # The sandbox needs rights that a container does not have.
        browser = driver.chromium.launch(executable_path=CHROMIUM, args=["--no-sandbox"])
        if int(browser.version.partition(".")[0]) < 123:
            pytest.skip(f"Chromium {browser.version} has no light-dark(), which the colors need")
        yield browser
        browser.close()


@pytest.fixture(scope="module")
def url(server_process: Any, tmp_path_factory: pytest.TempPathFactory) -> Iterator[str]:
    """The address of a console that tests do not edit; one reply contains markup."""
    directory = tmp_path_factory.mktemp("console")
    hostile = SCENARIO.with_reply("build_switch_lg_state.json", HOSTILE.encode())
    hostile.save(directory / "hostile")
    with server_process(directory, "--scenario", str(directory / "hostile")) as server:
        yield server.url


class Visit:
    """A page with the errors of its scripts."""

    def __init__(self, page: Any, url: str) -> None:
        self.page = page
        self.url = url
        self.errors: list[str] = []
        page.set_default_timeout(TIMEOUT_MS)
        page.on("pageerror", lambda error: self.errors.append(str(error)))
        page.on("console", self._on_console)
        page.on("dialog", lambda dialog: dialog.accept())

    def _on_console(self, message: Any) -> None:
        # A test may provoke an error response.
        if message.type == "error" and "Failed to load resource" not in message.text:
            self.errors.append(message.text)

    def open(self, place: str = "functions") -> None:
        """Open the address #/place."""
        self.page.goto(f"{self.url}#/{place}")
        name = place.rpartition("/")[2]
        self.page.wait_for_function(
            "name => document.title.toLowerCase().startsWith(name) || name === 'functions'",
            arg=name,
        )
        self.page.wait_for_selector("#work")

    def press(self, name: str) -> None:
        """Press a button."""
        self.page.get_by_role("button", name=name, exact=True).click()

    def call(self) -> None:
        """Press Call and wait for the outcome."""
        self.page.evaluate("document.querySelector('.output')?.replaceChildren()")
        self.press("Call")
        self.page.wait_for_selector(".call-log, [role=alert]")

    def text(self, selector: str) -> str:
        """Return the text of the only element that matches."""
        return str(self.page.locator(selector).inner_text())

    def texts(self, selector: str) -> list[str]:
        """Return the texts of all elements that match."""
        return list(self.page.locator(selector).all_inner_texts())

    def screenshot(self, name: str) -> None:
        """Save a screenshot of the whole page."""
        SCREENSHOTS.mkdir(parents=True, exist_ok=True)
        self.page.evaluate("document.activeElement?.blur?.()")
        self.page.screenshot(
            path=SCREENSHOTS / f"{name}.png", full_page=True, animations="disabled"
        )

    def focused(self, what: str = "textContent") -> str:
        """Return a property of the focused element."""
        return str(self.page.evaluate(f"document.activeElement.{what}")).strip()

    @property
    def overflow(self) -> int:
        """By how many pixels the page is wider than the window."""
        width = "document.scrollingElement.scrollWidth - document.documentElement.clientWidth"
        return int(self.page.evaluate(width))


@pytest.fixture
def open_window(browser: Any) -> Iterator[Any]:
    """Opens a window: (address, settings of the context) to a `Visit`."""
    contexts, visits = [], []

    def open_window(url: str, **settings: Any) -> Visit:
        context = browser.new_context(**{"viewport": WIDE, "color_scheme": "light", **settings})
        contexts.append(context)
        visits.append(Visit(context.new_page(), url))
        return visits[-1]

    yield open_window
    for context in contexts:
        context.close()
    assert [visit.errors for visit in visits if visit.errors] == []


@pytest.fixture
def visit(open_window: Any, url: str) -> Any:
    """A page of the console that tests do not edit."""
    return open_window(url)


@pytest.fixture
def edited(server_process: Any, open_window: Any, initial: Path, tmp_path: Path) -> Iterator[Visit]:
    """The scenarios of a console that the test may edit."""
    with server_process(tmp_path, "--scenario", str(initial)) as server:
        visit = open_window(server.url)
        visit.open("scenarios")
        yield visit


# Calls


def test_every_function_is_listed_and_can_be_called(visit: Visit) -> None:
    visit.open()
    assert visit.texts("nav.list a") == [function.name for function in FUNCTIONS]
    visit.screenshot("functions")
    for function in FUNCTIONS:
        visit.page.locator(f"nav.list a[data-name={function.name}]").click()
        visit.page.wait_for_function("name => document.title.startsWith(name)", arg=function.name)
        assert visit.text("h1") == function.name
        assert visit.text(".signature").startswith(f"{function.name}(")
        assert visit.page.locator(".parameter").count() == len(function.parameters)
        assert visit.text(".documentation")
        visit.call()
        assert visit.page.locator(".result, .exception").count() == 1


def test_list_of_dictionaries_is_shown_as_table_tree_and_json(visit: Visit) -> None:
    visit.open("functions/list_switch_lg_state")
    visit.call()
    columns = visit.texts(".table > table > thead th")
    assert columns == ["group", "number", "blank", "empty", "flags"]
    # No markup, no rounded digits, visible white space.
    assert visit.texts(".table > table > tbody > tr:first-child > td") == [
        "<img src=x onerror=alert(1)>",
        "9007199254740993",
        "·padded·",
        '""',
        "True\nNone\n1.5",
    ]
    assert visit.texts(".below table th") == ["port", "rate"]
    visit.screenshot("table")
    visit.press("JSON")
    assert json.loads(visit.text("pre.json >> nth=0")) == json.loads(HOSTILE)
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


def test_native_calls_of_a_query_are_shown_in_order(visit: Visit) -> None:
    visit.open("functions/list_switch_port_statistics")
    visit.call()
    steps = visit.texts(".steps .head code")
    assert steps == ["build_switch_port_statistics", "JSONObject.release", "JSONObject.release"]
    assert json.loads(visit.text(".step >> nth=0 >> pre")) == {"port_name": "port1"}
    assert visit.text(".result .badge") == "recorded"
    assert re.fullmatch(r"\d+ µs|\d+\.\d ms", visit.text(".result .note"))


def test_command_is_shown_with_its_bytes(visit: Visit) -> None:
    visit.open("functions/get_system_arp_result")
    visit.call()
    assert visit.text("pre.command") == "get system arp"
    visit.page.get_by_text("14 bytes").click()
    assert visit.text("pre.hex") == b"get system arp".hex(" ")


def test_function_without_native_call_says_so(visit: Visit) -> None:
    visit.open("functions/switch_mclag_icl")
    assert "Not called yet" in visit.text(".output")
    visit.call()
    assert visit.text(".result .badge") == "no call"
    assert visit.text(".result .scalar") == "None"


def test_exception_is_shown_with_message_and_traceback(visit: Visit) -> None:
    visit.open("functions/get_cli_command_output")
    visit.page.get_by_label("Value of cmd_s").fill("get nonsense")
    visit.call()
    assert visit.text(".exception h2") == "Raised CFunctionError"
    assert visit.text(".exception .badge") == "no reply"
    assert visit.text(".exception .message") == "get_cli_command_output's result is null."
    (entry,) = visit.texts(".traceback li")
    function, place = entry.splitlines()
    assert function == "veldarin.modules.modules_util.get_cli_command_output"
    assert re.fullmatch(r"veldarin/modules/modules_util, line \d+", place)
    visit.screenshot("exception")


@pytest.mark.parametrize(
    ("function", "kind", "typed", "python", "shown"),
    [
        ("aps_unsigned_int_hash", "bytes", "ab\\x00c", 'b"ab\\x00c"', "2659403885"),
        ("aps_unsigned_int_hash", "hex", "61 62", 'bytes.fromhex("61 62")', "2659403885"),
        ("aps_unsigned_int_hash", "base64", "YWI=", 'b64decode("YWI=")', "2659403885"),
        ("get_cookie_name", "text", "", '""', "'APCOOKIE_"),
        ("get_cookie_name", "integer", "7", "7", "'APSCOOKIE_"),
        ("get_cookie_name", "true", None, "True", "'APSCOOKIE_"),
        ("get_cookie_name", "false", None, "False", "'APCOOKIE_"),
        ("get_cookie_name", "none", None, "None", "'APCOOKIE_"),
        ("get_cookie_name", "json", "[[]]", "[[]]", "'APSCOOKIE_"),
    ],
)
def test_argument_of_each_kind_is_passed_to_the_module(
    visit: Visit, function: str, kind: str, typed: str | None, python: str, shown: str
) -> None:
    visit.open(f"functions/{function}")
    visit.page.locator(".parameter select").select_option(kind)
    if typed is not None:
        visit.page.locator(".parameter .typed > *").fill(typed)
    assert visit.text(".python") == f"{function}({python})"
    visit.call()
    assert visit.text(".result .scalar").startswith(shown)


def test_argument_is_passed_by_name_position_or_omitted(visit: Visit) -> None:
    visit.open("functions/switch_acl_ingress_counter")
    assert visit.text(".python") == "switch_acl_ingress_counter(policy_id=7)"
    visit.call()
    assert json.loads(visit.text(".step >> nth=0 >> pre")) == {"policy_id": 7}
    visit.press("by position")
    assert visit.text(".python") == "switch_acl_ingress_counter(7)"
    visit.page.locator(".parameter select").select_option("omitted")
    assert visit.text(".python") == "switch_acl_ingress_counter()"
    visit.call()
    assert visit.text(".step >> nth=0 >> pre") == "{}"


def test_invalid_input_is_reported_at_its_field(visit: Visit) -> None:
    visit.open("functions/encrypt_cookie")
    field = visit.page.get_by_label("Value of plain")
    field.fill("a\\q")
    visit.page.keyboard.press("Enter")
    error = visit.page.locator(".parameter .error")
    error.wait_for()
    assert error.inner_text() == "bytes: invalid escape \\q at offset 1"
    assert field.get_attribute("aria-invalid") == "true"
    assert visit.focused("tagName") == "INPUT"
    visit.screenshot("invalid-input")
    field.fill("a")
    assert not error.is_visible()
    visit.page.locator(".parameter select").select_option("json")
    visit.page.get_by_label("Value of plain").fill("{")
    visit.press("Call")
    error.wait_for()


def test_call_is_shown_as_a_curl_command(visit: Visit) -> None:
    visit.open("functions/list_switch_trunk_state")
    visit.page.get_by_text("As a curl command").click()
    visit.page.get_by_label("Value of trunk_name").fill("it's")
    assert visit.text(".curl pre") == (
        f"curl -H 'Content-Type: application/json' "
        f"{visit.url}api/functions/list_switch_trunk_state "
        """-d '{"arguments":["it'\\''s"]}'"""
    )


def test_unreachable_console_is_reported(visit: Visit) -> None:
    visit.open("functions/new_cookie_id")
    visit.page.route("**/api/**", lambda route: route.abort())
    visit.press("Call")
    visit.page.wait_for_selector("[role=alert]")
    assert "does not respond" in visit.text("[role=alert]")


# Parse


def parse(visit: Visit, kind: str, text: str) -> None:
    visit.press(kind)
    visit.page.get_by_label("Command output").fill(text)
    visit.page.evaluate("document.querySelector('.output').replaceChildren()")
    visit.press("Parse")
    visit.page.wait_for_selector(".lines")


def traced(visit: Visit) -> dict[int, str]:
    """Return line number to the values beside the line."""
    rows = zip(visit.texts(".lines .row .number"), visit.texts(".lines .row .values"))
    return {int(number): " ".join(values.split()) for number, values in rows}


def test_parsed_values_are_shown_beside_their_lines(visit: Visit) -> None:
    visit.open("parse")
    parse(visit, "ARP", ARP)
    assert traced(visit) == {1: "", 2: "[0] 192.0.2.10 0 02:00:00:aa:bb:cc port1"}
    assert visit.texts(".result td")[0] == "192.0.2.10"
    visit.screenshot("parse-arp")
    parse(visit, "Routing", ROUTING)
    assert traced(visit)[1] == "entry 192.0.2.0/24"
    assert traced(visit)[4] == "table[0] * 198.51.100.1 port1"
    parse(visit, "BFD", "\npeer 10.0.0.2 interface port1\n  Status: up\n")
    assert traced(visit)[3] == "10.0.0.2_port1.status up"


def test_rejected_line_is_marked(visit: Visit) -> None:
    visit.open("parse")
    parse(visit, "ARP", f"{ARP}device #\n")
    assert visit.text(".exception h2") == "Raised IndexError"
    assert visit.text(".row.rejected .number") == "3"
    assert "this line: 'device #'" in visit.text(".row.rejected .error")
    visit.screenshot("parse-rejected")


@pytest.mark.parametrize("kind", ["ARP", "Routing", "BFD"])
def test_sample_of_each_kind_is_parsed(visit: Visit, kind: str) -> None:
    visit.open("parse")
    visit.press(kind)
    visit.press("Use a sample")
    visit.page.keyboard.press("Control+Enter")
    visit.page.wait_for_selector(".result")
    assert visit.page.locator(".row.has-values").count() > 1
    visit.screenshot(f"parse-sample-{kind.lower()}")


# Scenarios


def choose(visit: Visit, scenario: str) -> None:
    visit.page.locator(".choices button", has_text=scenario).click()
    visit.page.wait_for_selector(f".choices [aria-pressed=true] >> text={scenario}")


def test_reply_is_edited_rejected_saved_and_removed(edited: Visit, tmp_path: Path) -> None:
    visit, page = edited, edited.page
    assert visit.text(".choices [aria-pressed=true] span") == "initial"
    page.locator("[data-reply=build_switch_lg_state]").click()
    area = page.get_by_label("Reply of build_switch_lg_state")
    area.fill('[\n  {"group": ]\n]')
    visit.press("Use this reply")
    page.wait_for_selector("[role=alert]")
    assert "not JSON" in visit.text("[role=alert] .message")
    assert "line 2" in visit.text("[role=alert] .hint")
    start, end = area.evaluate("area => [area.selectionStart, area.selectionEnd]")
    assert area.input_value()[start:end] == '  {"group": ]'
    visit.screenshot("scenario-rejected")

    area.fill('[{"group": "edited"}]')
    visit.press("Use this reply")
    page.wait_for_selector(".badge-modified >> text=unsaved")
    assert visit.text("#loaded") == "initial *"
    visit.open("functions/list_switch_lg_state")
    visit.call()
    assert visit.texts(".result td") == ["edited"]

    visit.open("scenarios")
    page.get_by_label("Name to save under").fill("mine")
    visit.press("Save")
    page.wait_for_selector(".choices [aria-pressed=true] >> text=mine")
    visit.screenshot("scenario-saved")
    saved = tmp_path / "state" / "scenarios" / "mine"
    assert (saved / "build_switch_lg_state.json").read_text() == '[{"group": "edited"}]'
    assert (saved / "cli" / "get system arp.txt").read_text() == ARP

    choose(visit, "This machine")
    choose(visit, "mine")
    page.locator("[data-reply=build_switch_lg_state]").click()
    visit.press("Remove from the scenario")
    page.wait_for_selector(".badge-modified >> text=removed")


def test_invalid_scenario_name_is_reported(edited: Visit) -> None:
    edited.page.get_by_label("Name to save under").fill("../escape")
    edited.press("Save")
    edited.page.wait_for_selector("[role=alert]")
    assert "a scenario name consists of" in edited.text("[role=alert]")


def test_editor_keeps_crlf_line_ends(edited: Visit, initial: Path) -> None:
    file = initial / "cli" / "get system arp.txt"
    file.write_bytes(ARP.replace("\n", "\r\n").encode())
    choose(edited, "This machine")
    choose(edited, "initial")
    edited.page.locator('[data-reply="get system arp"]').click()
    area = edited.page.get_by_label("Reply of get system arp")
    area.fill(area.input_value() + "192.0.2.99 1 02:00:00:00:00:01 port9\n")
    edited.press("Use this reply")
    edited.page.wait_for_selector(".badge-modified >> text=unsaved")
    edited.press("Save")
    edited.page.wait_for_selector(".badge-modified", state="detached")
    assert file.read_bytes().count(b"\r\n") == file.read_bytes().count(b"\n") == 3


# Keys


def test_function_is_found_and_called_with_keys(visit: Visit) -> None:
    visit.open()
    keys = visit.page.keyboard
    keys.press("/")
    assert visit.focused("id") == "filter"
    keys.type("trunk")
    assert visit.texts("nav.list a:visible") == ["list_switch_trunk_state"]
    keys.press("ArrowDown")
    assert visit.focused() == "list_switch_trunk_state"
    keys.press("Enter")
    visit.page.wait_for_function("() => document.title.startsWith('list_switch_trunk_state')")
    keys.press("Tab")
    keys.press("Tab")
    assert visit.focused("tagName") == "SELECT"
    keys.press("Tab")
    assert visit.focused("value") == "storage"
    keys.press("Enter")
    visit.page.wait_for_selector(".result")
    for _ in range(12):
        keys.press("Tab")
        if visit.focused() == "JSON":
            break
    keys.press("Space")
    assert "storage" in visit.text(".result pre.json")


def test_filter_without_match_says_so_and_can_be_reached(visit: Visit) -> None:
    visit.open()
    visit.page.keyboard.press("/")
    visit.page.keyboard.type("nothing like that")
    assert visit.page.get_by_text("No function name contains this.").is_visible()
    visit.page.locator("#filter").fill("arp")
    visit.page.keyboard.press("ArrowDown")
    visit.page.keyboard.press("ArrowUp")
    assert visit.focused("id") == "filter"


@pytest.mark.parametrize("place", ["functions/get_bfd_neighbor", "parse", "scenarios"])
def test_focus_is_visible_on_every_element(visit: Visit, place: str) -> None:
    visit.open(place)
    visit.page.wait_for_selector("#work button")
    visit.page.keyboard.press("Tab")
    assert visit.focused() == "Skip to the content"
    reached = set()
    for _ in range(70):
        style = visit.page.evaluate(
            "(() => { const style = getComputedStyle(document.activeElement);"
            " return [style.outlineStyle, parseFloat(style.outlineWidth)]; })()"
        )
        assert style[0] == "solid", visit.focused("outerHTML")[:200]
        assert style[1] >= 2
        reached.add(visit.focused("outerHTML"))
        visit.page.keyboard.press("Tab")
        if visit.focused("tagName") == "BODY":
            break
    assert len(reached) > 8


def test_skip_link_moves_focus_to_the_content(visit: Visit) -> None:
    visit.open("parse")
    visit.page.keyboard.press("Tab")
    visit.page.keyboard.press("Enter")
    assert visit.focused("id") == "work"


# Layout and colors

STATES = [
    ("functions/list_switch_lg_state", "Call"),
    ("functions/get_bfd_neighbor", "Call"),
    ("functions/get_cli_command_output", "Call"),
    ("functions/capture_sniffer_profile", "Call"),
    ("functions/switch_acl_ingress_counter", "Call"),
    ("functions/get_routing_table_result", "Call"),
    ("parse", "Parse"),
    ("scenarios", None),
]


def reach(visit: Visit, place: str, button: str | None) -> None:
    visit.open(place)
    if place == "parse":
        visit.press("Use a sample")
    if place == "scenarios":
        visit.page.locator("[data-reply=build_system_interface_physical]").click()
        visit.page.wait_for_selector(".editor textarea")
    if button is not None:
        visit.press(button)
        visit.page.wait_for_selector(".result, .exception")


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_page_fits_a_window_of_360_pixels(open_window: Any, url: str, scheme: str) -> None:
    visit = open_window(url, viewport=NARROW, color_scheme=scheme)
    visit.open()
    visit.page.get_by_text("All 30 functions").click()
    assert visit.overflow == 0
    visit.screenshot(f"360-{scheme}-functions-list")
    for place, button in STATES:
        reach(visit, place, button)
        assert visit.overflow == 0, place
        visit.screenshot(f"360-{scheme}-{place.replace('/', '-')}")


# Returns the number of texts, those with a contrast below 4.5, and the background's luminance.
CONTRAST = """
() => {
  const parse = (color) => {
    const match = /^rgba?\\(([\\d.]+), ([\\d.]+), ([\\d.]+)(?:, ([\\d.]+))?\\)$/.exec(color);
    return match ? [+match[1], +match[2], +match[3], +(match[4] ?? 1)] : null;
  };
  const luminance = ([r, g, b]) => {
    const linear = (c) => ((c /= 255) <= 0.04045 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4);
    return 0.2126 * linear(r) + 0.7152 * linear(g) + 0.0722 * linear(b);
  };
  const background = (element) => {
    for (let one = element; one; one = one.parentElement) {
      const color = parse(getComputedStyle(one).backgroundColor);
      if (color === null) throw new Error(getComputedStyle(one).backgroundColor);
      if (color[3] === 1) return color;
      if (color[3] !== 0) throw new Error("half transparent");
    }
    throw new Error("no background");
  };
  const faint = [];
  let seen = 0;
  for (const element of document.querySelectorAll("body *")) {
    const own = [...element.childNodes].some((n) => n.nodeType === 3 && n.data.trim());
    if (!own || !element.checkVisibility() || element.closest(".blank, .indexed > dt")) continue;
    seen += 1;
    const color = parse(getComputedStyle(element).color);
    const [a, b] = [luminance(color), luminance(background(element))];
    const ratio = (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05);
    if (ratio < 4.5) faint.push(`${ratio.toFixed(2)} ${element.className}: ${element.textContent}`);
  }
  return [seen, faint, luminance(background(document.body))];
}
"""


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_every_text_has_enough_contrast(open_window: Any, url: str, scheme: str) -> None:
    visit = open_window(url, color_scheme=scheme, reduced_motion="reduce")
    for place, button in STATES:
        reach(visit, place, button)
        visit.page.mouse.move(0, 0)
        seen, faint, background = visit.page.evaluate(CONTRAST)
        assert seen > 20
        assert faint == [], place
        assert (background < 0.05) == (scheme == "dark")
        visit.screenshot(f"1280-{scheme}-{place.replace('/', '-')}")


def test_theme_is_chosen_and_kept(open_window: Any, url: str) -> None:
    visit = open_window(url, color_scheme="light")
    button = visit.page.locator("#theme")

    def theme() -> tuple[str | None, Any]:
        color = "getComputedStyle(document.body).backgroundColor"
        return button.get_attribute("aria-label"), visit.page.evaluate(color)

    visit.open("parse")
    auto, light = theme()
    assert auto == "Colors: auto"
    button.click()
    assert theme() == ("Colors: light", light)
    button.click()
    label, dark = theme()
    assert label == "Colors: dark"
    assert dark != light
    visit.page.reload()
    visit.page.wait_for_selector("#work")
    assert theme() == ("Colors: dark", dark)
    button.click()
    assert theme() == ("Colors: auto", light)


def test_address_selects_the_section_and_back_returns(visit: Visit) -> None:
    visit.open("functions/get_token")
    visit.page.locator("[data-tab=parse]").click()
    visit.page.wait_for_selector("#command-output")
    visit.page.go_back()
    visit.page.wait_for_function("() => document.title.startsWith('get_token')")
    assert visit.page.locator("[data-tab=functions]").get_attribute("aria-current") == "page"
    visit.page.goto(f"{visit.url}#/functions/%E0no_such_function")
    visit.page.wait_for_selector("[role=alert]")
    assert "the module has no function" in visit.text("[role=alert]")
