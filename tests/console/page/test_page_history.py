"""The page: addresses, the window's history, the last calls, search and keys."""

from __future__ import annotations

from typing import Any

from tests.support.browser import Visit


def test_address_holds_function_and_arguments(visit: Visit) -> None:
    visit.open('functions/list_switch_trunk_state?arguments=["core"]')
    field = visit.page.get_by_label("Value of trunk_name")
    assert field.input_value() == "core"
    field.fill("edge & more")
    visit.until("() => location.hash.includes('edge')")
    assert visit.hash == '#/functions/list_switch_trunk_state?arguments=["edge & more"]'
    visit.page.reload()
    visit.page.wait_for_selector(".parameter")
    assert field.input_value() == "edge & more"
    assert "Not called yet" in visit.text(".output")


def test_arguments_in_an_address_fill_the_form(visit: Visit) -> None:
    for query, kind, value in [
        ('arguments=[{"hex":"61"}]', "hex", "61"),
        ("arguments=[null]", "none", None),
        ("arguments=[9007199254740993]", "integer", "9007199254740993"),
        ("arguments=[[1,2]]", "json", "[1,2]"),
        ("arguments=[1.5]", "json", "1.5"),
        ('arguments=[{"a":1,"b":2}]', "json", '{"a":1,"b":2}'),
        ("arguments=[]", "omitted", None),
        ('keywords={"https":true}', "true", None),
    ]:
        visit.open("watch")
        visit.open(f"functions/get_cookie_name?{query}")
        visit.page.wait_for_selector(".parameter")
        assert visit.page.locator(".parameter select").input_value() == kind
        if value is not None:
            assert visit.page.locator(".parameter .typed > *").input_value() == value


def test_malformed_address_shows_the_example(visit: Visit) -> None:
    visit.open("functions/get_cookie_name?arguments={oops")
    assert "does not hold valid arguments" in visit.text("form [role=alert]")
    assert visit.page.locator(".parameter select").input_value() != "omitted"


def test_back_restores_arguments_and_outcome(visit: Visit) -> None:
    visit.open('functions/get_cookie_name?arguments=["first"]')
    visit.call()
    field = visit.page.get_by_label("Value of https")
    field.fill("second")
    visit.until("() => location.hash.includes('second')")
    field.press("Enter")
    visit.until("() => document.querySelectorAll('.recent a').length === 2")
    visit.page.go_back()
    visit.until("() => location.hash.includes('first')")
    visit.page.wait_for_selector(".result")
    assert field.input_value() == "first"
    assert "called at" in visit.text(".result header")
    visit.page.go_forward()
    visit.until("() => location.hash.includes('second')")
    assert field.input_value() == "second"
    assert visit.texts(".recent a") == ['get_cookie_name("second")', 'get_cookie_name("first")']


def test_last_calls_outlast_a_reload_and_repeat_with_a_key(visit: Visit) -> None:
    visit.open('functions/get_cookie_name?arguments=["again"]')
    visit.call()
    visit.open("functions/get_token")
    visit.page.reload()
    visit.page.wait_for_selector(".recent a")
    assert visit.texts(".recent a") == ['get_cookie_name("again")']
    visit.page.locator("h1").click()
    visit.page.keyboard.press("r")
    visit.page.wait_for_selector(".result .scalar")
    assert visit.text("h1") == "get_cookie_name"
    assert visit.page.get_by_label("Value of https").input_value() == "again"
    visit.page.evaluate("document.querySelector('.output').replaceChildren()")
    visit.page.locator("h1").click()
    visit.page.keyboard.press("r")
    visit.page.wait_for_selector(".result .scalar")
    assert visit.texts(".recent a") == ['get_cookie_name("again")']


def test_address_selects_the_section_and_back_returns(visit: Visit) -> None:
    visit.open("functions/get_token")
    for section, selector in [
        ("watch", ".choice-cards"),
        ("compare", ".sides"),
        ("parse", "#command-output"),
        ("scenarios", ".replies"),
    ]:
        visit.page.locator(f"[data-tab={section}]").click()
        visit.page.wait_for_selector(selector)
        current = visit.page.locator(f"[data-tab={section}]").get_attribute("aria-current")
        assert current == "page"
    for _ in range(4):
        visit.page.go_back()
    visit.until("() => document.title.startsWith('get_token')")


def test_unknown_function_offers_similar_names(visit: Visit) -> None:
    visit.page.goto(f"{visit.url}#/functions/%E0list_port_statistic")
    visit.page.wait_for_selector("[role=alert] .suggestions")
    assert "The module has no function" in visit.text("[role=alert]")
    assert "list_switch_port_statistics" in visit.texts(".suggestions a")
    visit.page.locator(".suggestions a").first.click()
    visit.page.wait_for_selector("form.call")
    visit.page.goto(f"{visit.url}#/functions/xyz")
    visit.page.wait_for_selector("[role=alert]")
    assert "Choose one from the list." in visit.text("[role=alert]")


def test_search_finds_names_and_descriptions(visit: Visit) -> None:
    visit.open()
    for wanted, first in [
        ("spanning", "list_switch_stp_state"),
        ("port stat", "list_switch_port_statistics"),
        ("trunk", "list_switch_trunk_state"),
        ("switch_lg", "list_switch_lg_state"),
    ]:
        visit.page.keyboard.press("Control+k")
        visit.page.keyboard.type(wanted)
        visit.until("name => document.querySelector('.palette code')?.textContent === name", first)
        visit.page.keyboard.press("Enter")
        visit.until("name => document.title.startsWith(name)", first)
        visit.page.wait_for_selector(".palette", state="detached")
        visit.page.locator("#filter").fill(wanted)
        assert visit.texts("nav.list a:visible")[0] == first


def test_search_finds_replies_calls_and_sections(visit: Visit) -> None:
    visit.open('functions/get_cookie_name?arguments=["needle"]')
    visit.call()
    visit.page.keyboard.press("Control+k")
    visit.until("() => document.querySelectorAll('.palette li').length > 4")
    assert 'get_cookie_name("needle")' in visit.texts(".palette code")
    search = visit.page.get_by_role("combobox", name="Search everything")
    search.fill("get system arp")
    visit.until("() => document.querySelector('.palette .kind')?.textContent === 'function'")
    assert "command" in visit.texts(".palette .kind")
    search.fill("xyzzy")
    assert visit.texts(".palette li") == ["Nothing contains this."]
    search.fill("comp")
    visit.page.keyboard.press("End")
    while visit.text(".palette [aria-selected=true] code") != "Compare":
        visit.page.keyboard.press("ArrowDown")
    visit.page.keyboard.press("Enter")
    visit.page.wait_for_selector(".sides")


def test_question_mark_shows_the_keys(visit: Visit) -> None:
    visit.open()
    visit.page.keyboard.press("?")
    assert "Repeat the last call" in visit.text("dialog")
    assert visit.page.locator("dialog a").get_attribute("href") == "/api/openapi.json"
    visit.screenshot("keys")
    visit.page.keyboard.press("Escape")
    visit.page.wait_for_selector("dialog", state="detached")
    visit.page.locator("#filter").fill("?")
    assert visit.page.locator("dialog").count() == 0


def test_function_is_found_and_called_with_keys(visit: Visit) -> None:
    visit.open()
    keys = visit.page.keyboard
    keys.press("/")
    assert visit.focused("id") == "filter"
    keys.type("trunk")
    assert visit.texts("nav.list a:visible")[0] == "list_switch_trunk_state"
    keys.press("ArrowDown")
    assert visit.focused() == "list_switch_trunk_state"
    keys.press("Enter")
    visit.until("() => document.activeElement.value === 'storage'")
    keys.press("Enter")
    visit.page.wait_for_selector(".result")
    assert visit.focused("value") == "storage"
    for _ in range(12):
        keys.press("Tab")
        if visit.focused() == "JSON":
            break
    keys.press("Space")
    assert "storage" in visit.text(".result .json-view")


def test_function_without_parameters_is_called_with_two_keys(visit: Visit) -> None:
    visit.open()
    visit.page.keyboard.press("/")
    visit.page.keyboard.type("mclag icl")
    visit.page.keyboard.press("Enter")
    visit.until("() => document.activeElement.textContent === 'Call'")
    visit.page.keyboard.press("Enter")
    visit.page.wait_for_selector(".result")
    assert visit.focused() == "Call"


def test_filter_without_match_says_so_and_can_be_reached(visit: Visit) -> None:
    visit.open()
    visit.page.keyboard.press("/")
    visit.page.keyboard.type("nothing like that")
    assert visit.page.get_by_text("No name or description contains this.").is_visible()
    visit.page.locator("#filter").fill("arp")
    visit.page.keyboard.press("ArrowDown")
    visit.page.keyboard.press("ArrowUp")
    assert visit.focused("id") == "filter"


def test_focus_is_visible_on_every_element(visit: Visit) -> None:
    for place in (
        "functions/get_bfd_neighbor", "parse", "scenarios", "watch/switch_mclag_icl", "compare",
    ):  # fmt: skip
        visit.open(place)
        visit.page.reload()
        visit.page.wait_for_selector("#work :is(button, select)")
        visit.page.keyboard.press("Tab")
        assert visit.focused() == "Skip to the content"
        reached = set()
        for _ in range(60):
            width, style, element = visit.page.evaluate(
                "(() => { const { outlineStyle, outlineWidth } ="
                " getComputedStyle(document.activeElement);"
                " return [parseFloat(outlineWidth), outlineStyle,"
                " document.activeElement.outerHTML]; })()"
            )
            assert style == "solid", element[:200]
            assert width >= 2
            reached.add(element)
            visit.page.keyboard.press("Tab")
            if visit.focused("tagName") == "BODY":
                break
        assert len(reached) > 8


def test_skip_link_moves_focus_to_the_content(visit: Visit) -> None:
    visit.open("parse")
    visit.page.keyboard.press("Tab")
    visit.page.keyboard.press("Enter")
    assert visit.focused("id") == "work"


def test_section_that_loads_late_does_not_replace_another(visit: Visit) -> None:
    visit.open("parse")
    held: list[Any] = []
    visit.page.route("**/api/functions", lambda route: held.append(route))
    visit.page.evaluate("location.hash = '#/functions/get_token'")
    visit.until("() => document.querySelector('[data-tab=functions]').ariaCurrent === 'page'")
    while not held:
        visit.page.wait_for_timeout(10)
    visit.page.evaluate("location.hash = '#/scenarios'")
    visit.page.wait_for_selector(".replies")
    held[0].continue_()
    visit.page.wait_for_load_state("networkidle")
    assert visit.page.title() == "Scenarios · Console"
    assert visit.page.locator(".replies").count() > 0
