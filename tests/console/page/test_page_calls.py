"""The page: every function is called, every kind of argument passed, every outcome shown."""

from __future__ import annotations

import json
import re
from typing import Any

from tests.support.browser import Visit
from tests.support.console import BFD
from tests.support.function_table import FUNCTIONS


def test_every_function_is_listed_and_can_be_called(visit: Visit) -> None:
    visit.open()
    groups = "nav.list section:not(.recent) a"
    assert visit.texts(groups) == [function.name for function in FUNCTIONS]
    visit.screenshot("functions")
    for function in FUNCTIONS:
        visit.page.locator(f"nav.list a[data-name={function.name}]").click()
        visit.until("name => document.title.startsWith(name)", function.name)
        assert visit.text("h1") == function.name
        assert visit.text(".signature").startswith(f"{function.name}(")
        assert visit.page.locator(".parameter").count() == len(function.parameters)
        assert visit.text(".documentation")
        visit.call()
        assert visit.page.locator(".result, .exception").count() == 1


def evaluate(call: str) -> Any:
    """Return name, positional and keyword arguments of a call in Python."""
    name = call.partition("(")[0]

    def collect(*positional: Any, **keywords: Any) -> Any:
        return name, positional, keywords

    return eval(call, {"__builtins__": {}, name: collect})


def python_call(visit: Visit, name: str, body: Any) -> str:
    """Return the line of Python that the page shows for a call."""
    script = (
        "async ([name, body]) => (await import('/static/functions/python.js'))"
        ".pythonCall(name, JSON.parse(body))"
    )
    return str(visit.page.evaluate(script, [name, json.dumps(body)]))


def test_python_line_equals_that_of_the_response(visit: Visit) -> None:
    visit.open()
    subsystems = visit.api("GET", "/api/functions")["subsystems"]
    for function in [one for subsystem in subsystems for one in subsystem["functions"]]:
        name, body = function["name"], function["example_call"]
        code = visit.api("POST", f"/api/functions/{name}", body)["code"]
        assert evaluate(python_call(visit, name, body)) == evaluate(code["python"])


def test_python_line_is_valid_python(visit: Visit) -> None:
    visit.open()
    for argument, value in [
        ({"bytes": 'a\\x00\\n"\\\\é'}, b'a\x00\n"\\\xc3\xa9'),
        ({"hex": "61 62"}, b"ab"),
        ({"base64": "YWI="}, b"ab"),
        ({"integer": " +007 "}, 7),
        ({"integer": "18446744073709551616"}, 18446744073709551616),
        ({"json": {"a": [True, None, 1.5, "x"]}}, {"a": [True, None, 1.5, "x"]}),
        ('it\'s \u202e "q"\n', 'it\'s \u202e "q"\n'),
        ({"text": "\U0001f600"}, "\U0001f600"),
    ]:
        call = python_call(visit, "f", {"arguments": [argument], "keywords": {"class": argument}})
        assert evaluate(call) == ("f", (value,), {"class": value})
        assert "\u202e" not in call


def test_argument_of_each_kind_is_passed_to_the_module(visit: Visit) -> None:
    for function, kind, typed, python, shown in [
        ("aps_unsigned_int_hash", "bytes", "ab\\x00c", 'b"ab\\x00c"', "2659403885"),
        ("aps_unsigned_int_hash", "hex", "61 62", 'b"ab"', "2659403885"),
        ("aps_unsigned_int_hash", "base64", "YWI=", 'b"ab"', "2659403885"),
        ("get_cookie_name", "text", "", '""', "'APCOOKIE_"),
        ("get_cookie_name", "integer", "7", "7", "'APSCOOKIE_"),
        ("get_cookie_name", "true", None, "True", "'APSCOOKIE_"),
        ("get_cookie_name", "false", None, "False", "'APCOOKIE_"),
        ("get_cookie_name", "none", None, "None", "'APCOOKIE_"),
        ("get_cookie_name", "json", "[[]]", "[[]]", "'APSCOOKIE_"),
    ]:
        if visit.page.title() != f"{function} · Console":
            visit.open(f"functions/{function}")
        visit.page.locator(".parameter select").select_option(kind)
        if typed is not None:
            visit.page.locator(".parameter .typed > *").fill(typed)
        assert visit.text(".python") == f"{function}({python})"
        visit.call()
        assert visit.text(".result .scalar").startswith(shown)


def test_argument_is_passed_by_name_position_or_omitted(visit: Visit) -> None:
    visit.open('functions/switch_acl_ingress_counter?keywords={"policy_id":7}')
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
    assert visit.text(".python") == "bytes: invalid escape \\q"
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
    for typed, message in (("{", "JSON"), ("1e999", "too large")):
        visit.page.get_by_label("Value of plain").fill(typed)
        visit.press("Call")
        error.wait_for()
        assert message in error.inner_text()


def test_native_calls_of_a_query_are_shown_in_order(visit: Visit) -> None:
    visit.open('functions/list_switch_port_statistics?arguments=["port1"]')
    visit.call()
    steps = visit.texts(".steps .head > code")
    assert steps == ["build_switch_port_statistics", "JSONObject.release", "JSONObject.release"]
    assert json.loads(visit.text(".step >> nth=0 >> pre")) == {"port_name": "port1"}
    assert visit.text(".result .badge") in ("scenario", "recorded")
    assert re.fullmatch(r"\d+ µs|\d+\.\d ms", visit.text(".result .note"))


def test_command_is_shown_with_its_bytes(visit: Visit) -> None:
    visit.open("functions/get_system_arp_result")
    visit.call()
    assert visit.text("pre.command") == "get system arp"
    visit.page.get_by_text("14 bytes").click()
    assert visit.text("pre.hex") == b"get system arp".hex(" ")


def test_log_records_are_shown_beside_the_result(visit: Visit) -> None:
    visit.api.set_reply("bfd", BFD)
    visit.open('functions/get_bfd_neighbor?arguments=["bfd",{"json":{}}]')
    visit.call()
    assert visit.texts(".log .record .level") == ["DEBUG"]
    assert visit.texts(".log .record pre") == ["e:argument of type 'type' is not iterable"]
    visit.screenshot("log")
    visit.open("functions/switch_mclag_icl")
    visit.call()
    assert visit.text(".call-log .logged") == "The module logged nothing."


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


def test_unreachable_console_is_reported(visit: Visit) -> None:
    visit.open("functions/new_cookie_id")
    visit.page.route("**/api/**", lambda route: route.abort())
    visit.press("Call")
    visit.page.wait_for_selector("[role=alert]")
    assert "does not respond" in visit.text("[role=alert]")


def test_section_that_cannot_be_loaded_is_reported(visit: Visit) -> None:
    visit.open()
    visit.page.route("**/watch/section.js", lambda route: route.abort())
    visit.page.locator("[data-tab=watch]").click()
    visit.page.wait_for_selector("[role=alert] >> text=does not respond")


def test_running_call_shows_its_time_and_can_be_left(visit: Visit) -> None:
    held: list[Any] = []
    visit.page.route("**/api/functions/new_cookie_id", lambda route: held.append(route))
    visit.open("functions/new_cookie_id")
    visit.press("Call")
    visit.page.wait_for_selector(".running")
    assert visit.page.get_by_role("button", name="Call", exact=True).is_disabled()
    first = float(visit.text(".seconds").removesuffix(" s"))
    visit.until(
        "first => parseFloat(document.querySelector('.seconds').textContent) > first", first
    )
    visit.press("Leave it")
    assert re.match(r"Left after \d+\.\d s\.", visit.text(".output"))
    visit.page.unroute("**/api/functions/new_cookie_id")
    visit.call()
    assert visit.page.locator(".result").count() == 1


def test_response_that_is_late_is_dropped(visit: Visit) -> None:
    held: list[Any] = []
    visit.page.route("**/api/functions/new_cookie_id", lambda route: held.append(route))
    visit.open("functions/new_cookie_id")
    visit.press("Call")
    visit.page.wait_for_selector(".running")
    visit.open("functions/switch_mclag_icl")
    visit.call()
    held[0].continue_()
    visit.call()
    assert visit.text("h1") == "switch_mclag_icl"
    assert visit.text(".result .scalar") == "None"
    assert visit.texts(".recent a") == ["switch_mclag_icl()"]
