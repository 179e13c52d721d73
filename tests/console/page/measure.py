"""Measures the console's page in headless Chromium.

python -m tests.console.page.measure [CALLS]

Prints the time until the page can be used, the time to decode and paint 10,000 rows, the time of
CALLS calls (default 1,000) with their outcomes shown, and the memory of the page before and after.
"""

from __future__ import annotations

import json
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

from playwright.sync_api import sync_playwright

ROOT = Path(__file__).resolve().parents[3]
ROWS = [
    {
        "group": f"lg{n}",
        "state": "up" if n % 7 else "down",
        "active": None,
        "changes": n * 37 % 1000,
    }
    for n in range(10_000)
]
LOADS = 10
PAINT = """
async view => {
  const { resultPanel } = await import('/static/results/outcome.js');
  const { parseJSON } = await import('/static/core/api.js');
  const response = await fetch('/api/functions/list_switch_lg_state',
    { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: '{}' });
  const text = await response.text();
  const painted = () => new Promise((done) => requestAnimationFrame(() => setTimeout(done)));
  const start = performance.now();
  const { result } = parseJSON(text);
  const panel = resultPanel(result, 'rows');
  document.querySelector('.output').replaceChildren(panel);
  if (view !== 'Table') {
    [...panel.querySelectorAll('button')].find((one) => one.textContent === view).click();
  }
  await painted();
  return performance.now() - start;
}
"""
CALL = """
async count => {
  const { outcome } = await import('/static/results/outcome.js');
  const { addRecent } = await import('/static/core/recent.js');
  const { post } = await import('/static/core/api.js');
  const start = performance.now();
  for (let i = 0; i < count; i += 1) {
    const body = { arguments: [`port${i % 50}`], keywords: {} };
    const response = await post('/api/functions/list_switch_lldp_state', body);
    const entry = addRecent({
      kind: 'call', name: 'list_switch_lldp_state', body, label: 'x', response, outcome: 'x',
    });
    document.querySelector('.output').replaceChildren(...outcome(entry));
  }
  return performance.now() - start;
}
"""


def main() -> None:
    """Print the figures."""
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 1000
    with server() as url, sync_playwright() as driver:
        browser = driver.chromium.launch(
            executable_path=shutil.which("chromium"), args=["--no-sandbox"]
        )
        page = browser.new_context(viewport={"width": 1280, "height": 860}).new_page()
        times = [time_to_interactive(page, url) for _ in range(LOADS)]
        print(f"usable after {statistics.median(times):.0f} ms (median of {LOADS})")
        put = {"text": json.dumps(ROWS)}
        page.request.put(f"{url}api/replies/build_switch_lg_state", data=put)
        for view in ("Table", "Tree", "JSON"):
            print(f"10,000 rows as {view}: {page.evaluate(PAINT, view):.0f} ms")
        page.request.delete(f"{url}api/replies/build_switch_lg_state")
        page.goto(f"{url}#/functions/list_switch_lldp_state")
        page.evaluate(CALL, 100)
        before = memory(page)
        milliseconds = page.evaluate(CALL, count)
        after = memory(page)
        print(f"{count} calls with their outcomes: {milliseconds / 1000:.2f} s")
        print(f"page's memory: {before} before, {after} after")
        browser.close()


def time_to_interactive(page: Any, url: str) -> float:
    """Return the milliseconds from the navigation until the function can be called."""
    page.goto("about:blank")
    page.goto(f"{url}#/functions/list_switch_lg_state", wait_until="commit")
    page.wait_for_selector("form.call button[type=submit]")
    return float(page.evaluate("performance.now()"))


def memory(page: Any) -> str:
    """Return the size of the JavaScript heap and the number of nodes."""
    session = page.context.new_cdp_session(page)
    session.send("HeapProfiler.collectGarbage")
    session.send("Performance.enable")
    metrics = {
        one["name"]: one["value"] for one in session.send("Performance.getMetrics")["metrics"]
    }
    session.detach()
    return f"{metrics['JSHeapUsedSize'] / 1e6:.1f} MB, {metrics['Nodes']:.0f} nodes"


@contextmanager
def server() -> Iterator[str]:
    """Run a console and yield its address."""
    with tempfile.TemporaryDirectory() as directory:
        command = [sys.executable, "-m", "veldarin_simulator", "console", "--port", "0"]
        environment = {**os.environ, "VELDARIN_SIMULATOR_STATE": directory}
        with subprocess.Popen(
            command, cwd=ROOT, env=environment, stdout=subprocess.PIPE, text=True
        ) as process:
            assert process.stdout is not None
            match = re.search(r"http://\S+", process.stdout.readline())
            assert match is not None
            try:
                yield match[0]
            finally:
                process.terminate()


if __name__ == "__main__":
    main()
