"""The page: watching a call."""

from __future__ import annotations

import csv
import io
import json

import pytest

from tests.support.browser import LINKS, Visit

PORTS = [
    {
        "port_name": name, "bytes_sent": 1000, "bytes_recv": 5000, "packets_sent": 10,
        "packets_recv": 50, "errin": 0, "errout": 0, "dropin": 2, "dropout": 0,
    }
    for name in ("port1", "port2")
]  # fmt: skip


def watch(visit: Visit, name: str) -> None:
    """Watch a call every second, and wait for the first sample."""
    visit.open(f"watch/{name}?every=1")
    visit.page.wait_for_selector(".watch-tools .badge")


def next_sample(visit: Visit) -> None:
    """Wait for a sample of a call that begins later."""
    samples = (
        "parseInt(/([\\d,]+) sample/.exec(document.querySelector('.watch-tools').textContent)[1])"
    )
    count = visit.page.evaluate(samples)
    visit.until(f"count => {samples} >= count + 2", count)


def test_watch_offers_views_calls_and_functions(visit: Visit) -> None:
    visit.open('functions/get_cookie_name?arguments=["x"]')
    visit.call()
    visit.open("watch")
    assert visit.texts(".choice-card strong") == ["Port statistics", "BFD sessions", "Link monitor"]
    assert visit.texts(".links >> nth=0 >> a") == ['get_cookie_name("x")']
    visit.page.locator(".links a", has_text="list_switch_stp_state").click()
    visit.until("() => document.title.startsWith('Watch list_switch_stp_state')")
    visit.page.wait_for_selector(".watched .pill")
    visit.page.goto(f"{visit.url}#/watch/no_such_function")
    visit.page.wait_for_selector("[role=alert]")
    assert "no function" in visit.text("[role=alert]")


def test_changes_are_marked_and_counters_have_rates(visit: Visit) -> None:
    name = "list_switch_flapguard_status"
    reply = [{"port_name": "port1", "link": "up", "flaps": 1}]
    visit.api.set_reply("build_switch_flapguard_status", reply)
    watch(visit, name)
    assert visit.texts(".watched th[scope=row]") == ["link", "flaps"]
    assert visit.texts(".watched .entity") == ["port1"]
    assert visit.page.locator("tr.changed").count() == 0
    visit.api.set_reply("build_switch_flapguard_status", [{**reply[0], "link": "down", "flaps": 8}])
    visit.page.wait_for_selector("tr.changed .pill-bad")
    assert "was up" in visit.texts("tr.changed .change")[0]
    assert visit.texts("tr.changed .change")[1].startswith("▲ ")
    assert visit.page.locator(".strip rect").count() == 2
    parts = visit.page.locator(".strip rect").evaluate_all(
        "all => all.map((one) => ['x', 'width'].map((name) => +one.getAttribute(name)))"
    )
    (start, length), (change, rest) = parts
    assert (start, start + length) == (0, pytest.approx(change, abs=0.1))
    assert rest > 1
    assert change + rest == pytest.approx(100, abs=0.1)
    label = visit.page.locator(".strip").get_attribute("aria-label")
    assert label == "link: down, 1 change"
    trend = visit.page.locator(".sparkline .trend").get_attribute("d")
    assert trend.startswith("M")
    assert "port1 link: up → down" in str(visit.page.locator("#status").text_content())
    visit.screenshot("watch-changes")
    visit.until("() => !document.querySelector('tr.changed')")
    visit.page.get_by_label("Only what changed").check()
    assert visit.texts(".watched th[scope=row]") == ["link", "flaps"]


def test_watch_is_paused_resumed_and_exported(visit: Visit) -> None:
    watch(visit, "list_system_link_monitor_status")
    visit.press("Pause")
    assert visit.text(".watch-state") == "Paused"
    _, text = visit.download("Export", "JSON")
    seen = json.loads(text)
    assert seen["function"] == "list_system_link_monitor_status"
    assert seen["samples"][0]["value"] == LINKS
    _, text = visit.download("Export", "CSV")
    rows = list(csv.DictReader(io.StringIO(text)))
    assert {row["entity"] for row in rows} == {link["name"] for link in LINKS}
    count = len(seen["samples"])
    assert len(rows) == count * len(LINKS) * 2
    visit.page.keyboard.press("p")
    assert visit.text(".watch-state") == "Watching"
    next_sample(visit)


def test_watch_stops_while_the_page_is_hidden(visit: Visit) -> None:
    requests: list[str] = []
    visit.page.on("request", lambda request: requests.append(request.url))
    visit.page.clock.install()
    watch(visit, "list_switch_lg_state")
    hide = """hidden => {
      Object.defineProperty(document, 'hidden', { get: () => hidden, configurable: true });
      document.dispatchEvent(new Event('visibilitychange'));
    }"""
    visit.page.evaluate(hide, True)
    assert visit.text(".watch-state") == "Stopped while hidden"
    visit.page.wait_for_load_state("networkidle")
    requests.clear()
    visit.page.clock.run_for(60_000)
    assert requests == []
    visit.page.evaluate(hide, False)
    assert visit.text(".watch-state") == "Watching"
    next_sample(visit)
    assert any(one.endswith("/api/status") for one in requests)


def test_watch_ends_with_its_place(visit: Visit) -> None:
    watch(visit, "list_switch_lg_state")
    requests: list[str] = []
    visit.open("parse")
    visit.page.on("request", lambda request: requests.append(request.url))
    with visit.page.expect_request("**/api/status"):
        pass
    with visit.page.expect_request("**/api/status"):
        pass
    assert [one for one in requests if "/api/functions/" in one] == []


def test_interval_is_kept_in_the_address(visit: Visit) -> None:
    visit.open('watch/list_switch_trunk_state?arguments=["storage"]')
    assert visit.text("[aria-label='Repeat every'] [aria-pressed=true]") == "5 s"
    visit.press("30 s")
    assert visit.hash.endswith('?arguments=["storage"]&every=30')
    visit.page.reload()
    visit.page.wait_for_selector(".watch-tools")
    assert visit.text("[aria-label='Repeat every'] [aria-pressed=true]") == "30 s"
    visit.page.get_by_role("link", name="Edit the call").click()
    visit.page.wait_for_selector("form.call")
    assert visit.page.get_by_label("Value of trunk_name").input_value() == "storage"


def test_exception_of_a_watched_call_is_shown(visit: Visit) -> None:
    watch_name = 'get_cli_command_output?arguments=["get nonsense"]&every=1'
    visit.open(f"watch/{watch_name}")
    visit.page.wait_for_selector(".exception")
    assert visit.text(".exception h2") == "Raised CFunctionError"
    visit.api.set_reply("get nonsense", "fine\n")
    visit.page.wait_for_selector(".watched td")
    assert visit.page.locator(".exception").count() == 0


def test_port_statistics_have_their_view(visit: Visit) -> None:
    visit.api.set_reply("build_switch_port_statistics", PORTS)
    watch(visit, "list_switch_port_statistics")
    assert visit.texts(".ports tbody th") == ["port1", "port2"]
    assert visit.page.locator(".ports td.warned").count() == 2
    busy = {**PORTS[0], "bytes_recv": 5_000_000, "errin": 3}
    visit.api.set_reply("build_switch_port_statistics", [busy, PORTS[1]])
    visit.page.wait_for_selector(".ports td.bad")
    rate = visit.texts(".ports td.changed .rate")[0]
    assert rate.endswith("Mbit/s")
    assert 5 < float(rate.split()[0]) < 60
    assert visit.texts(".ports td.bad") == ["3 +3"]
    visit.screenshot("watch-ports")


def test_bfd_sessions_have_their_view(visit: Visit) -> None:
    watch(visit, "list_bfd_neighbor")
    titles = visit.texts(".card h2")
    assert titles == ["198.51.100.2 on port1", "2001:db8::2 on port1"]
    assert visit.texts(".card .pill") == ["up", "up"]
    assert "300ms in, 300ms out, \u00d7 3" in visit.text(".card >> nth=0")
    visit.screenshot("watch-bfd")


def test_link_monitor_has_its_view(visit: Visit) -> None:
    watch(visit, "list_system_link_monitor_status")
    assert visit.texts(".card h2") == [link["name"] for link in LINKS]
    changed = [{**LINKS[0], "status": "down", "carrier_changes": 5}, *LINKS[1:]]
    visit.api.set_reply("build_system_link_monitor_status", changed)
    visit.page.wait_for_selector(".card >> nth=0 >> .pill-bad")
    assert visit.page.locator(".card >> nth=0 >> .strip rect").count() == 2
    assert "+4 seen here" in visit.text(".card >> nth=0")
    visit.screenshot("watch-links")


def test_counter_has_rates(visit: Visit) -> None:
    visit.open("watch")
    script = """async values => {
      const { Observation } = await import('/static/watch/observation.js');
      const observation = new Observation();
      values.forEach((one, second) =>
        observation.add(second * 1000, { result: { value: [{ name: "a", packets: one }] } }));
      const [series] = observation.series.values();
      return [series.kind, series.rates()];
    }"""
    for values, rates in [
        ([1, 3, 7], [2, 4]),
        (["343 ", "345 ", "2 "], [2, None]),
        ([None, 5, 6], [None, 1]),
    ]:
        assert visit.page.evaluate(script, values) == ["counter", rates]


def test_long_watch_keeps_a_bounded_number_of_samples(visit: Visit) -> None:
    visit.open("watch")
    script = """async () => {
      const { Observation } = await import('/static/watch/observation.js');
      const observation = new Observation();
      for (let i = 0; i < 1000; i += 1) observation.add(i, { result: { value: { n: i } } });
      const rows = Array.from({ length: 10000 }, (_, i) => ({ name: `p${i}`, n: i }));
      const large = new Observation();
      for (let i = 0; i < 50; i += 1) large.add(i, { result: { value: rows } });
      const points = (one) => [...one.series.values()][0].points.length;
      return [observation.samples.length, observation.dropped, points(observation),
        large.samples.length, large.series.size];
    }"""
    assert visit.page.evaluate(script) == [600, 400, 600, 39, 4000]
