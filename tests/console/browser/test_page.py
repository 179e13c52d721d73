"""The console's page, clicked through in a browser: Debian's Chromium without a window.

Every state that a person may want to look at is left in build/screenshots. Where there is no
browser the tests are skipped with the reason.
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

from tests.support import isolated
from tests.support.console import ARP, ROUTING, running, scenario
from tests.support.function_table import FUNCTIONS

driver = pytest.importorskip("playwright.sync_api", reason="no browser's driver is installed")

CHROMIUM = shutil.which("chromium")
SCREENSHOTS = isolated.ROOT / "build" / "screenshots"
WIDE, NARROW = {"width": 1280, "height": 860}, {"width": 360, "height": 740}
PATIENCE = 15_000  # milliseconds; nothing here takes a tenth of it

# One line in place of all tests, not one for each.
if CHROMIUM is None:
    pytest.skip("no Chromium: tests/console/browser/bootstrap installs it", allow_module_level=True)
if os.environ.get("LD_PRELOAD"):
    pytest.skip("a browser does not run with the sanitizer preloaded", allow_module_level=True)

pytestmark = pytest.mark.xdist_group("browser")  # one browser for all


@pytest.fixture(scope="module")
def browser() -> Iterator[Any]:
    """The browser."""
    with driver.sync_playwright() as playwright:
        # The sandbox is of no use to a page of our own, and needs rights that a container has not.
        browser = playwright.chromium.launch(executable_path=CHROMIUM, args=["--no-sandbox"])
        yield browser
        browser.close()


@pytest.fixture
def folder(tmp_path: Path) -> Path:
    """The console's folder: the scenario `given`, and the state directory."""
    scenario(tmp_path / "given")
    return tmp_path


@pytest.fixture(scope="module")
def served(build: None, tmp_path_factory: pytest.TempPathFactory) -> Iterator[str]:
    """Where a console is served that no test edits."""
    folder = tmp_path_factory.mktemp("console")
    given = scenario(folder / "given")
    (given / "build_switch_lg_state.json").write_text(HOSTILE)
    with running(folder, "--scenario", str(given)) as (_, host, port):
        yield f"http://{host}:{port}/"


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


class Visit:
    """A page under the eyes of a test; errors of its scripts fail the test."""

    def __init__(self, page: Any, address: str) -> None:
        self.page = page
        self.address = address
        self.errors: list[str] = []
        page.set_default_timeout(PATIENCE)
        page.on("pageerror", lambda error: self.errors.append(str(error)))
        page.on("console", self._heard)
        page.on("dialog", lambda dialog: dialog.accept())

    def _heard(self, message: Any) -> None:
        # That a request was refused is what a test may be about.
        if message.type == "error" and "Failed to load resource" not in message.text:
            self.errors.append(message.text)

    def open(self, place: str = "functions") -> None:
        """Goes to a part of the page, #/place."""
        self.page.goto(f"{self.address}#/{place}")
        name = place.rpartition("/")[2]
        self.page.wait_for_function(
            "name => document.title.toLowerCase().startsWith(name) || name === 'functions'",
            arg=name,
        )
        self.page.wait_for_selector("#work")

    def call(self) -> None:
        """Presses the button and waits for what comes back."""
        self.page.evaluate("document.querySelector('.left')?.replaceChildren()")
        self.page.get_by_role("button", name="Call", exact=True).click()
        self.page.wait_for_selector(".journal, [role=alert]")

    def text(self, selector: str) -> str:
        """The text of the one element that is meant."""
        return str(self.page.locator(selector).inner_text())

    def look(self, name: str) -> None:
        """Leaves a picture of the window."""
        SCREENSHOTS.mkdir(parents=True, exist_ok=True)
        self.page.evaluate("document.activeElement?.blur?.()")
        self.page.screenshot(
            path=SCREENSHOTS / f"{name}.png", full_page=True, animations="disabled"
        )

    @property
    def overflow(self) -> int:
        """By how many pixels the page is wider than the window."""
        width = "document.scrollingElement.scrollWidth - document.documentElement.clientWidth"
        return int(self.page.evaluate(width))


@pytest.fixture
def visited(browser: Any) -> Iterator[Any]:
    """Opens windows: (address, settings) to a `Visit`."""
    contexts, visits = [], []

    def visited(address: str, **settings: Any) -> Visit:
        context = browser.new_context(**{"viewport": WIDE, "color_scheme": "light", **settings})
        contexts.append(context)
        visits.append(Visit(context.new_page(), address))
        return visits[-1]

    yield visited
    for context in contexts:
        context.close()
    assert [visit.errors for visit in visits if visit.errors] == []


@pytest.fixture(scope="module")
def window(browser: Any) -> Iterator[Any]:
    """A window of the usual size, whose pages share what the browser keeps."""
    with browser.new_context(viewport=WIDE, color_scheme="light") as context:
        yield context


@pytest.fixture
def visit(window: Any, served: str) -> Iterator[Visit]:
    """A page on the console that no test edits."""
    opened = Visit(window.new_page(), served)
    yield opened
    opened.page.close()
    assert opened.errors == []


# Calls


def test_the_thirty_functions_are_listed_and_each_can_be_called(visit: Visit) -> None:
    visit.open()
    links = visit.page.locator("nav.list a")
    assert links.all_inner_texts() == [function.name for function in FUNCTIONS]
    visit.look("functions")
    for function in FUNCTIONS:
        visit.page.locator(f"nav.list a[data-name={function.name}]").click()
        visit.page.wait_for_function("name => document.title.startsWith(name)", arg=function.name)
        assert visit.text("h1") == function.name
        assert visit.text(".signature").startswith(f"{function.name}(")
        assert visit.page.locator(".parameter").count() == len(function.parameters)
        assert visit.text(".told")
        visit.call()
        assert visit.page.locator(".result, .raised").count() == 1


def test_a_list_of_dictionaries_is_a_table_and_raw_json_one_click_away(visit: Visit) -> None:
    visit.open("functions/list_switch_lg_state")
    visit.call()
    assert visit.page.locator(".table > table > thead th").all_inner_texts() == [
        "group",
        "number",
        "blank",
        "empty",
        "flags",
    ]
    row = visit.page.locator(".table > table > tbody > tr").first
    # Nothing is taken for markup, no digit is rounded, blanks at the ends can be seen.
    assert row.locator("td").all_inner_texts() == [
        "<img src=x onerror=alert(1)>",
        "9007199254740993",
        "·padded·",
        '""',
        "True\nNone\n1.5",
    ]
    assert visit.page.locator(".below table th").all_inner_texts() == ["port", "rate"]
    visit.look("table")
    visit.page.get_by_role("button", name="JSON").click()
    assert json.loads(visit.text("pre.json >> nth=0")) == json.loads(HOSTILE)
    visit.page.get_by_role("button", name="Tree").click()
    assert "9007199254740993" in visit.text(".result .tree >> nth=0")
    visit.look("tree")


def test_a_dictionary_is_a_tree(visit: Visit) -> None:
    visit.open("functions/get_routing_table_result")
    visit.call()
    assert visit.page.get_by_role("button", name="Table").count() == 0
    assert visit.page.locator(".result dt").all_inner_texts()[:3] == ["entry", "distance", "metric"]
    assert "··Known via static" in visit.text(".result")
    assert visit.text(".result header").split()[:4] == ["Returned", "dict", "of", "6"]


def test_the_native_calls_of_a_query_are_told_in_order(visit: Visit) -> None:
    visit.open("functions/list_switch_port_statistics")
    visit.call()
    steps = visit.page.locator(".steps .what code").all_inner_texts()
    assert steps == ["build_switch_port_statistics", "JSONObject.release", "JSONObject.release"]
    assert json.loads(visit.text(".step >> nth=0 >> pre")) == {"port_name": "port1"}
    assert visit.page.locator(".result .badge").inner_text() == "recorded"
    assert re.fullmatch(r"\d+ µs|\d+\.\d ms", visit.text(".result .took"))


def test_a_command_is_told_with_its_bytes(visit: Visit) -> None:
    visit.open("functions/get_system_arp_result")
    visit.call()
    assert visit.text("pre.command") == "get system arp"
    visit.page.get_by_text("14 bytes").click()
    assert visit.text("pre.hex") == b"get system arp".hex(" ")


def test_a_function_that_asks_nobody_says_so(visit: Visit) -> None:
    visit.open("functions/switch_mclag_icl")
    assert "Nothing called yet" in visit.text(".left")
    visit.call()
    assert visit.page.locator(".result .badge").inner_text() == "no call"
    assert visit.text(".result .alone") == "None"


def test_a_failing_call_shows_type_message_and_traceback(visit: Visit) -> None:
    visit.open("functions/get_cli_command_output")
    visit.page.get_by_label("Value of cmd_s").fill("get nonsense")
    visit.call()
    assert visit.text(".raised h2") == "Raised CFunctionError"
    assert visit.page.locator(".raised .badge").inner_text() == "no answer"
    assert visit.text(".raised .message") == "get_cli_command_output's result is null."
    (entry,) = visit.page.locator(".traceback li").all_inner_texts()
    assert entry.splitlines()[0] == "veldarin.modules.modules_util.get_cli_command_output"
    assert re.fullmatch(r"veldarin/modules/modules_util, line \d+", entry.splitlines()[1])
    visit.look("raised")


KINDS = [
    # function, kind, value typed, the call as Python, the result as it is shown
    ("aps_unsigned_int_hash", "bytes", "ab\\x00c", 'b"ab\\x00c"', "2659403885"),
    ("aps_unsigned_int_hash", "hex", "61 62", 'bytes.fromhex("61 62")', "2659403885"),
    ("aps_unsigned_int_hash", "base64", "YWI=", 'b64decode("YWI=")', "2659403885"),
    ("get_cookie_name", "text", "", '""', "'APCOOKIE_"),
    ("get_cookie_name", "integer", "7", "7", "'APSCOOKIE_"),
    ("get_cookie_name", "true", None, "True", "'APSCOOKIE_"),
    ("get_cookie_name", "false", None, "False", "'APCOOKIE_"),
    ("get_cookie_name", "none", None, "None", "'APCOOKIE_"),
    ("get_cookie_name", "json", "[[]]", "[[]]", "'APSCOOKIE_"),
]


@pytest.mark.parametrize(("function", "kind", "typed", "python", "shown"), KINDS)
def test_an_argument_of_each_kind_reaches_the_module(
    visit: Visit, function: str, kind: str, typed: str | None, python: str, shown: str
) -> None:
    visit.open(f"functions/{function}")
    visit.page.locator(".parameter select").select_option(kind)
    if typed is not None:
        visit.page.locator(".parameter .typed > *").fill(typed)
    assert visit.text(".python") == f"{function}({python})"
    visit.call()
    assert visit.text(".result .alone").startswith(shown)


def test_arguments_are_omitted_or_given_by_name(visit: Visit) -> None:
    visit.open("functions/switch_acl_ingress_counter")
    assert visit.text(".python") == "switch_acl_ingress_counter(policy_id=7)"
    visit.call()
    assert json.loads(visit.text(".step >> nth=0 >> pre")) == {"policy_id": 7}
    visit.page.get_by_role("button", name="by position").click()
    assert visit.text(".python") == "switch_acl_ingress_counter(7)"
    visit.page.locator(".parameter select").select_option("omitted")
    assert visit.text(".python") == "switch_acl_ingress_counter()"
    visit.call()
    assert visit.text(".step >> nth=0 >> pre") == "{}"


def test_what_is_mistyped_is_told_at_its_field(visit: Visit) -> None:
    visit.open("functions/encrypt_cookie")
    field = visit.page.get_by_label("Value of plain")
    field.fill("a\\q")
    visit.page.keyboard.press("Enter")
    fault = visit.page.locator(".parameter .fault")
    fault.wait_for()
    assert fault.inner_text() == "bytes: \\q at offset 1 is no escape of these bytes"
    assert field.get_attribute("aria-invalid") == "true"
    assert visit.page.evaluate("document.activeElement.tagName") == "INPUT"
    visit.look("mistyped")
    field.fill("a")
    assert not fault.is_visible()
    visit.page.locator(".parameter select").select_option("json")
    visit.page.get_by_label("Value of plain").fill("{")
    visit.page.get_by_role("button", name="Call", exact=True).click()
    fault.wait_for()


def test_the_same_call_with_curl_is_told(visit: Visit) -> None:
    visit.open("functions/list_switch_trunk_state")
    visit.page.get_by_text("The same with curl").click()
    visit.page.get_by_label("Value of trunk_name").fill("it's")
    assert visit.text(".curl pre") == (
        f"curl -H 'Content-Type: application/json' "
        f"{visit.address}api/functions/list_switch_trunk_state "
        """-d '{"arguments":["it'\\''s"]}'"""
    )


def test_a_console_that_is_gone_is_told(visit: Visit) -> None:
    visit.open("functions/new_cookie_id")
    visit.page.route("**/api/**", lambda route: route.abort())
    visit.page.get_by_role("button", name="Call", exact=True).click()
    visit.page.wait_for_selector("[role=alert]")
    assert "does not answer" in visit.text("[role=alert]")


# Captures


def parse(visit: Visit, kind: str, text: str) -> None:
    visit.page.get_by_role("button", name=kind, exact=True).click()
    visit.page.get_by_label("Captured text").fill(text)
    visit.page.evaluate("document.querySelector('.left').replaceChildren()")
    visit.page.get_by_role("button", name="Parse").click()
    visit.page.wait_for_selector(".beside")


def brought(visit: Visit) -> dict[int, str]:
    """Line number to the values shown beside it."""
    rows = visit.page.locator(".beside .row").all()
    told = [(row.locator(".number").inner_text(), row.locator(".brought")) for row in rows]
    return {int(number): " ".join(cell.inner_text().split()) for number, cell in told}


def test_a_pasted_capture_is_shown_beside_its_lines(visit: Visit) -> None:
    visit.open("captures")
    parse(visit, "ARP", ARP)
    assert brought(visit) == {1: "", 2: "[0] 192.0.2.10 0 02:00:00:aa:bb:cc port1"}
    assert visit.page.locator(".result td").all_inner_texts()[0] == "192.0.2.10"
    visit.look("capture-arp")
    parse(visit, "Routing", ROUTING)
    assert brought(visit)[1] == "entry 192.0.2.0/24"
    assert brought(visit)[4] == "table[0] * 198.51.100.1 port1"
    parse(visit, "BFD", "\npeer 10.0.0.2 interface port1\n  Status: up\n")
    assert brought(visit)[3] == "10.0.0.2_port1.status up"


def test_a_capture_that_is_refused_shows_the_line(visit: Visit) -> None:
    visit.open("captures")
    parse(visit, "ARP", f"{ARP}device #\n")
    assert visit.text(".raised h2") == "Raised IndexError"
    assert visit.text(".row.wrong .number") == "3"
    assert "the parser refuses this line" in visit.text(".row.wrong .fault")
    visit.look("capture-refused")


@pytest.mark.parametrize("kind", ["ARP", "Routing", "BFD"])
def test_a_sample_of_each_kind_is_parsed(visit: Visit, kind: str) -> None:
    visit.open("captures")
    visit.page.get_by_role("button", name=kind, exact=True).click()
    visit.page.get_by_role("button", name="Use a sample").click()
    visit.page.keyboard.press("Control+Enter")
    visit.page.wait_for_selector(".result")
    assert visit.page.locator(".row.brings").count() > 1
    visit.look(f"sample-{kind.lower()}")


# Scenarios


def test_an_answer_is_edited_checked_taken_and_saved(visited: Any, folder: Path) -> None:
    with running(folder, "--scenario", str(folder / "given")) as (_, host, port):
        visit = visited(f"http://{host}:{port}/")
        visit.open("scenarios")
        assert visit.text(".choices [aria-pressed=true] span") == "given"
        visit.page.locator("[data-answer=build_switch_lg_state]").click()
        area = visit.page.get_by_label("Answer of build_switch_lg_state")
        area.fill('[\n  {"group": ]\n]')
        visit.page.get_by_role("button", name="Use this answer").click()
        visit.page.wait_for_selector("[role=alert]")
        assert "not JSON" in visit.text("[role=alert] .message")
        assert "line 2" in visit.text("[role=alert] .hint")
        start, end = area.evaluate("area => [area.selectionStart, area.selectionEnd]")
        assert area.input_value()[start:end] == '  {"group": ]'
        visit.look("scenario-refused")

        area.fill('[{"group": "edited"}]')
        visit.page.get_by_role("button", name="Use this answer").click()
        visit.page.wait_for_selector(".badge-changed >> text=unsaved")
        assert visit.text("#loaded") == "given *"
        visit.open("functions/list_switch_lg_state")
        visit.call()
        assert visit.page.locator(".result td").all_inner_texts() == ["edited"]

        visit.open("scenarios")
        visit.page.get_by_label("Name to save under").fill("mine")
        visit.page.get_by_role("button", name="Save").click()
        visit.page.wait_for_selector(".choices [aria-pressed=true] >> text=mine")
        visit.look("scenario-saved")
        kept = folder / "state" / "scenarios" / "mine"
        assert (kept / "build_switch_lg_state.json").read_text() == '[{"group": "edited"}]'
        assert (kept / "cli" / "get system arp.txt").read_text() == ARP

        visit.page.locator(".choices button", has_text="This machine").click()
        visit.page.wait_for_selector(".choices [aria-pressed=true] >> text=This machine")
        visit.page.locator(".choices button", has_text="mine").click()
        visit.page.wait_for_selector(".choices [aria-pressed=true] >> text=mine")
        visit.page.locator("[data-answer=build_switch_lg_state]").click()
        visit.page.get_by_role("button", name="Remove from the scenario").click()
        visit.page.wait_for_selector(".badge-changed >> text=taken out")


def test_a_name_that_is_none_is_refused_in_its_place(visited: Any, folder: Path) -> None:
    with running(folder, "--scenario", str(folder / "given")) as (_, host, port):
        visit = visited(f"http://{host}:{port}/")
        visit.open("scenarios")
        visit.page.get_by_label("Name to save under").fill("../escape")
        visit.page.get_by_role("button", name="Save").click()
        visit.page.wait_for_selector("[role=alert]")
        assert "a scenario's name has letters" in visit.text("[role=alert]")


def test_line_ends_of_a_device_outlive_the_editor(visited: Any, folder: Path) -> None:
    capture = folder / "given" / "cli" / "get system arp.txt"
    capture.write_bytes(ARP.replace("\n", "\r\n").encode())
    with running(folder, "--scenario", str(folder / "given")) as (_, host, port):
        visit = visited(f"http://{host}:{port}/")
        visit.open("scenarios")
        visit.page.locator('[data-answer="get system arp"]').click()
        area = visit.page.get_by_label("Answer of get system arp")
        area.fill(area.input_value() + "192.0.2.99 1 02:00:00:00:00:01 port9\n")
        visit.page.get_by_role("button", name="Use this answer").click()
        visit.page.wait_for_selector(".badge-changed >> text=unsaved")
        visit.page.get_by_role("button", name="Save").click()
        visit.page.wait_for_selector(".badge-changed", state="detached")
    assert capture.read_bytes().count(b"\r\n") == capture.read_bytes().count(b"\n") == 3


# Keys


def focused(visit: Visit, what: str = "textContent") -> str:
    return str(visit.page.evaluate(f"document.activeElement.{what}")).strip()


def test_a_function_is_found_and_called_with_keys_alone(visit: Visit) -> None:
    visit.open()
    keys = visit.page.keyboard
    keys.press("/")
    assert focused(visit, "id") == "filter"
    keys.type("trunk")
    assert visit.page.locator("nav.list a:visible").all_inner_texts() == ["list_switch_trunk_state"]
    keys.press("ArrowDown")
    assert focused(visit) == "list_switch_trunk_state"
    keys.press("Enter")
    visit.page.wait_for_function("() => document.title.startsWith('list_switch_trunk_state')")
    keys.press("Tab")
    keys.press("Tab")
    assert focused(visit, "tagName") == "SELECT"
    keys.press("Tab")
    assert visit.page.evaluate("document.activeElement.value") == "storage"
    keys.press("Enter")
    visit.page.wait_for_selector(".result")
    for _ in range(12):
        keys.press("Tab")
        if focused(visit) == "JSON":
            break
    keys.press("Space")
    assert "storage" in visit.text(".result pre.json")


def test_a_filter_without_a_match_says_so_and_arrows_lead_back(visit: Visit) -> None:
    visit.open()
    visit.page.keyboard.press("/")
    visit.page.keyboard.type("nothing like that")
    assert visit.page.get_by_text("No function has that in its name.").is_visible()
    visit.page.locator("#filter").fill("arp")
    visit.page.keyboard.press("ArrowDown")
    visit.page.keyboard.press("ArrowUp")
    assert focused(visit, "id") == "filter"


def test_everything_that_can_be_reached_shows_that_it_is(visit: Visit) -> None:
    for place in ("functions/get_bfd_neighbor", "captures", "scenarios"):
        visit.open(place)
        visit.page.wait_for_selector("#work button")
        visit.page.keyboard.press("Tab")
        assert focused(visit) == "Skip to the content"
        reached = set()
        for _ in range(70):
            style = visit.page.evaluate(
                "(() => { const style = getComputedStyle(document.activeElement);"
                " return [style.outlineStyle, parseFloat(style.outlineWidth)]; })()"
            )
            assert style[0] == "solid", focused(visit, "outerHTML")[:200]
            assert style[1] >= 2
            reached.add(focused(visit, "outerHTML"))
            visit.page.keyboard.press("Tab")
            if focused(visit, "tagName") == "BODY":
                break
        assert len(reached) > 8


def test_the_skip_link_goes_to_the_content(visit: Visit) -> None:
    visit.open("captures")
    visit.page.keyboard.press("Tab")
    visit.page.keyboard.press("Enter")
    assert focused(visit, "id") == "work"


# Room and colours

STATES = [
    ("functions/list_switch_lg_state", "Call"),
    ("functions/get_bfd_neighbor", "Call"),
    ("functions/get_cli_command_output", "Call"),
    ("functions/capture_sniffer_profile", "Call"),
    ("functions/switch_acl_ingress_counter", "Call"),
    ("functions/get_routing_table_result", "Call"),
    ("captures", "Parse"),
    ("scenarios", None),
]


def reach(visit: Visit, place: str, button: str | None) -> None:
    visit.open(place)
    if place == "captures":
        visit.page.get_by_role("button", name="Use a sample").click()
    if place == "scenarios":
        visit.page.locator("[data-answer=build_system_interface_physical]").click()
        visit.page.wait_for_selector(".editor textarea")
    if button is not None:
        visit.page.get_by_role("button", name=button, exact=True).click()
        visit.page.wait_for_selector(".result, .raised")


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_nothing_is_wider_than_a_window_of_360_pixels(
    visited: Any, served: str, scheme: str
) -> None:
    visit = visited(served, viewport=NARROW, color_scheme=scheme)
    visit.open()
    visit.page.get_by_text("All 30 functions").click()
    assert visit.overflow == 0
    visit.look(f"360-{scheme}-functions-list")
    for place, button in STATES:
        reach(visit, place, button)
        assert visit.overflow == 0, place
        visit.look(f"360-{scheme}-{place.replace('/', '-')}")


# The contrast of every text with what is behind it; those that have less than they need.
FAINT = """
() => {
  const parts = (colour) => {
    const found = /^rgba?\\(([\\d.]+), ([\\d.]+), ([\\d.]+)(?:, ([\\d.]+))?\\)$/.exec(colour);
    return found ? [+found[1], +found[2], +found[3], found[4] === undefined ? 1 : +found[4]] : null;
  };
  const light = ([r, g, b]) => {
    const one = (c) => ((c /= 255) <= 0.04045 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4);
    return 0.2126 * one(r) + 0.7152 * one(g) + 0.0722 * one(b);
  };
  const behind = (element) => {
    for (let one = element; one; one = one.parentElement) {
      const colour = parts(getComputedStyle(one).backgroundColor);
      if (colour === null) throw new Error(getComputedStyle(one).backgroundColor);
      if (colour[3] === 1) return colour;
      if (colour[3] !== 0) throw new Error("half transparent");
    }
    throw new Error("no background");
  };
  const faint = [];
  let seen = 0;
  for (const element of document.querySelectorAll("body *")) {
    const own = [...element.childNodes].some((n) => n.nodeType === 3 && n.data.trim());
    if (!own || !element.checkVisibility() || element.closest(".blank, .places > dt")) continue;
    seen += 1;
    const style = getComputedStyle(element);
    const [a, b] = [light(parts(style.color)), light(behind(element))];
    const ratio = (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05);
    if (ratio < 4.5) faint.push(`${ratio.toFixed(2)} ${element.className}: ${element.textContent}`);
  }
  return [seen, faint, light(behind(document.body))];
}
"""


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_every_text_can_be_read_in_both_colours(visited: Any, served: str, scheme: str) -> None:
    visit = visited(served, color_scheme=scheme, reduced_motion="reduce")
    for place, button in STATES:
        reach(visit, place, button)
        visit.page.mouse.move(0, 0)
        seen, faint, ground = visit.page.evaluate(FAINT)
        assert seen > 20
        assert faint == [], place
        assert (ground < 0.05) == (scheme == "dark")
        visit.look(f"1280-{scheme}-{place.replace('/', '-')}")


def test_the_colours_are_chosen_and_kept(visited: Any, served: str) -> None:
    visit = visited(served, color_scheme="light")

    def ground() -> Any:
        return visit.page.evaluate("getComputedStyle(document.body).backgroundColor")

    visit.open("captures")
    light = ground()
    button = visit.page.locator("#theme")
    button.click()
    assert (button.get_attribute("aria-label"), ground()) == ("Colours: light", light)
    button.click()
    assert button.get_attribute("aria-label") == "Colours: dark"
    dark = ground()
    assert dark != light
    visit.page.reload()
    visit.page.wait_for_selector("#work")
    assert ground() == dark
    button.click()
    assert (button.get_attribute("aria-label"), ground()) == ("Colours: auto", light)


def test_an_address_opens_what_it_names_and_the_way_back_works(visit: Visit) -> None:
    visit.open("functions/get_token")
    visit.page.locator("[data-tab=captures]").click()
    visit.page.wait_for_selector("#capture")
    visit.page.go_back()
    visit.page.wait_for_function("() => document.title.startsWith('get_token')")
    assert visit.page.locator("[data-tab=functions]").get_attribute("aria-current") == "page"
    visit.page.goto(f"{visit.address}#/functions/%E0no_such_function")
    visit.page.wait_for_selector("[role=alert]")
    assert "the module has no function" in visit.text("[role=alert]")
