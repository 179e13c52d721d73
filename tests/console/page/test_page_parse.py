"""The page: parsing of pasted and dropped command output, and comparison of calls and captures."""

from __future__ import annotations

from pathlib import Path
from typing import Any

from tests.support.browser import Visit
from tests.support.console import ARP, ROUTING

DROP = """
([selector, name, text]) => {
  const transfer = new DataTransfer();
  transfer.items.add(new File([text], name, { type: "text/plain" }));
  const target = document.querySelector(selector);
  for (const type of ["dragover", "drop"]) {
    target.dispatchEvent(
      new DragEvent(type, { dataTransfer: transfer, bubbles: true, cancelable: true }),
    );
  }
}
"""


def parse(visit: Visit, kind: str, text: str) -> None:
    visit.press(kind)
    visit.page.get_by_label("Command output").fill(text)
    visit.page.evaluate("document.querySelector('.output').replaceChildren()")
    visit.press("Parse")
    visit.page.wait_for_selector(".lines .number")


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


def test_sample_of_each_kind_is_recognized(visit: Visit) -> None:
    visit.open("parse")
    for kind in ("ARP", "Routing", "BFD"):
        visit.press(kind)
        visit.press("Use a sample")
        visit.press("Recognize")
        visit.page.evaluate("document.querySelector('.output').replaceChildren()")
        visit.page.locator("#command-output").press("Control+Enter")
        visit.page.wait_for_selector(".row.has-values")
        assert visit.text(".result header .note") == f"parsed as {kind}"
        assert visit.page.locator(".row.has-values").count() > 1
        visit.screenshot(f"parse-sample-{kind.lower()}")


def test_text_of_no_kind_is_reported(visit: Visit) -> None:
    visit.open("parse")
    visit.page.get_by_label("Command output").fill("hello\n")
    visit.press("Parse")
    visit.page.wait_for_selector("[role=alert]")
    assert "Rejected" in visit.text("[role=alert]")


def test_dropped_file_is_recognized_and_parsed(visit: Visit) -> None:
    visit.open("parse")
    visit.press("BFD")
    visit.page.evaluate(DROP, ["#work", "arp.txt", ARP])
    visit.page.wait_for_selector(".row.has-values")
    assert visit.text(".result header .note") == "parsed as ARP"
    assert visit.page.get_by_label("Command output").input_value() == ARP
    # A drop elsewhere does not replace the page.
    visit.page.evaluate(DROP, [".bar", "arp.txt", ARP])
    assert visit.page.locator(".row.has-values").count() == 1


def test_chosen_file_is_parsed(visit: Visit, tmp_path: Path) -> None:
    (tmp_path / "routing.log").write_text(ROUTING)
    visit.open("parse")
    with visit.page.expect_file_chooser() as chooser:
        visit.press("Open a file")
    chooser.value.set_files(tmp_path / "routing.log")
    visit.page.wait_for_selector(".row.has-values")
    assert visit.text(".result header .note") == "parsed as Routing"
    (tmp_path / "large.log").write_bytes(b"x" * 1_000_001)
    with visit.page.expect_file_chooser() as chooser:
        visit.press("Open a file")
    chooser.value.set_files(tmp_path / "large.log")
    visit.page.wait_for_selector("[role=alert]")
    assert "large.log is larger than" in visit.text("[role=alert]")


def test_long_capture_shows_its_lines_in_blocks(visit: Visit) -> None:
    lines = "".join(f"192.0.2.{n % 250}  {n}  02:00:00:aa:bb:cc  port{n}\n" for n in range(5000))
    visit.open("parse")
    visit.page.evaluate(DROP, ["#work", "arp.txt", ARP.splitlines(keepends=True)[0] + lines])
    visit.page.wait_for_selector(".lines .number")
    assert visit.page.locator(".lines .row").count() < 800
    region = visit.page.locator(".lines")
    region.evaluate("one => one.scrollTo(0, one.scrollHeight)")
    region.get_by_text("5001", exact=True).wait_for()


# Compare


def call(visit: Visit, place: str) -> None:
    visit.open(f"functions/{place}")
    visit.call()


def differences(visit: Visit) -> list[list[str]]:
    """Return the marked rows: mark, path, left and right value."""
    rows = visit.page.locator(".comparison tbody tr:not(.diff-same)")
    return [
        [cell.splitlines()[0] if cell else "" for cell in row.locator("> *").all_inner_texts()]
        for row in rows.all()
    ]


def test_two_calls_are_compared(visit: Visit) -> None:
    first = [{"group": "lg1", "state": "up"}, {"group": "lg2", "state": "up"}]
    second = [{"group": "lg2", "state": "down"}, {"group": "lg1", "state": "up"}, {"group": "lg3"}]
    visit.api.set_reply("build_switch_lg_state", first)
    call(visit, "list_switch_lg_state")
    visit.api.set_reply("build_switch_lg_state", second)
    call(visit, "list_switch_lg_state")
    visit.page.get_by_role("link", name="Compare").last.click()
    visit.page.wait_for_selector(".comparison tbody tr")
    assert differences(visit) == [
        ["≠", "lg2 \u203a state", "up", "down"],
        ["+", "lg3 \u203a group", "", "lg3"],
    ]
    assert visit.text(".comparison header .note") == "2 differences"
    assert visit.page.locator(".comparison tbody tr").count() == 5
    visit.page.get_by_label("Only differences").check()
    visit.until("() => document.querySelectorAll('.comparison tbody tr').length === 2")
    visit.screenshot("compare-calls")
    visit.api.set_reply("build_switch_lg_state", second)
    visit.page.locator(".side").first.get_by_role("button", name="Call again").click()
    visit.page.wait_for_selector(".comparison .empty")
    assert visit.text(".comparison header .note") == "no differences"


def test_two_captures_are_compared(visit: Visit) -> None:
    visit.open("compare")
    assert "Choose two." in visit.text(".output")
    changed = ARP.replace("port1", "port9") + "192.0.2.11  1  02:00:00:aa:bb:cd  port2\n"
    visit.page.evaluate(DROP, [".side", "before.txt", ARP])
    visit.page.wait_for_selector(".side option[selected] >> text=before.txt", state="attached")
    visit.page.evaluate(DROP, [".side:nth-child(2)", "after.txt", changed])
    visit.page.wait_for_selector(".comparison tbody tr")
    assert ["≠", "192.0.2.10 \u203a interface", "port1", "port9"] in differences(visit)
    visit.page.wait_for_selector(".text-diff .pair")
    kinds = [
        one.split("diff-")[1]
        for one in visit.page.locator(".text-diff .pair").evaluate_all(
            "all => all.map((one) => one.className)"
        )
    ]
    assert kinds == ["same", "changed", "right", "same"]
    visit.screenshot("compare-captures")


def test_lines_are_aligned_by_their_common_ones(visit: Visit) -> None:
    visit.open("compare")
    script = (
        "async ([a, b]) => (await import('/static/compare/diff.js'))"
        ".diffLines(a, b).map(([x, y]) => [x?.[0] ?? 0, y?.[0] ?? 0])"
    )

    def aligned(a: str, b: str) -> Any:
        return visit.page.evaluate(script, [list(a), list(b)])

    assert aligned("abc", "abc") == [[1, 1], [2, 2], [3, 3]]
    assert aligned("abcd", "axcd") == [[1, 1], [2, 2], [3, 3], [4, 4]]
    assert aligned("abcd", "acd") == [[1, 1], [2, 0], [3, 2], [4, 3]]
    assert aligned("acd", "abcd") == [[1, 1], [0, 2], [2, 3], [3, 4]]
    assert aligned("aXbYc", "aYc") == [[1, 1], [2, 0], [3, 0], [4, 2], [5, 3]]
    assert aligned("abcx", "xabc") == [[0, 1], [1, 2], [2, 3], [3, 4], [4, 0]]
    assert aligned("", "ab") == [[0, 1], [0, 2]]
    assert aligned("aa", "aaa") == [[1, 1], [2, 2], [0, 3]]
