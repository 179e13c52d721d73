"""A window of the console's page in headless Chromium."""

from __future__ import annotations

import json
import re
import shutil
from pathlib import Path
from typing import Any
from urllib.parse import quote
from urllib.request import Request, urlopen

from tests.support.console import SCENARIO

# The shell has the same engine and takes less time for a window.
CHROMIUM = shutil.which("chromium-headless-shell") or shutil.which("chromium")
SCREENSHOTS = Path(__file__).parents[2] / "build" / "screenshots"
WIDE, NARROW = {"width": 1280, "height": 860}, {"width": 360, "height": 740}
TIMEOUT_MS = 15_000

# Markup, a number that JavaScript rounds, and characters that hide or reorder others.
HOSTILE = json.dumps(
    [
        {
            "group": "<img src=x onerror=alert(1)>",
            "number": 9007199254740993,
            "blank": " padded ",
            "empty": "",
            "flags": [True, None, 1.5],
            "hidden": "a\u202eb\u200bc\u0007",
            "members": [{"port": "p1", "rate": 1}, {"port": "p2"}],
        }
    ]
)
LINKS = [
    {"name": f"port{number}", "status": "up" if number % 3 else "down", "carrier_changes": number}
    for number in range(1, 13)
]
PAGE_SCENARIO = SCENARIO.with_reply("build_switch_lg_state.json", HOSTILE.encode()).with_reply(
    "build_system_link_monitor_status.json", json.dumps(LINKS).encode()
)


class Api:
    """Changes a console as another program would."""

    def __init__(self, url: str) -> None:
        self.url = url

    def __call__(self, method: str, path: str, body: Any = None) -> Any:
        """Send a request and return the JSON of the response."""
        data = None if body is None else json.dumps(body).encode()
        headers = {} if body is None else {"Content-Type": "application/json"}
        request = Request(self.url.rstrip("/") + quote(path), data, headers, method=method)
        with urlopen(request, timeout=30) as response:
            return json.load(response)

    def set_reply(self, name: str, value: Any) -> None:
        """Override the reply of a service with a value, or of a command with its output."""
        text = value if isinstance(value, str) else json.dumps(value)
        self("PUT", f"/api/replies/{name}", {"text": text})


class Visit:
    """A page with the errors of its scripts."""

    def __init__(self, page: Any, url: str) -> None:
        self.page = page
        self.url = url
        self.api = Api(url)
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
        """Open the address #/place and wait until its section is shown."""
        self.page.goto(f"{self.url}#/{place}")
        section, _, name = place.partition("?")[0].partition("/")
        title = name if section in ("functions", "watch") and name else section
        self.page.wait_for_function(
            "title => document.title.toLowerCase().includes(title) || title === 'functions'",
            arg=title.lower(),
        )
        self.page.wait_for_selector("#work")

    def press(self, name: str) -> None:
        """Press a button."""
        self.page.get_by_role("button", name=name, exact=True).click()

    def call(self) -> None:
        """Press Call and wait for the outcome."""
        self.page.evaluate("document.querySelector('.output')?.replaceChildren()")
        self.press("Call")
        self.page.wait_for_selector(".call-log, .output [role=alert]")

    def choose(self, menu: str, item: str) -> None:
        """Open a menu and press one of its buttons."""
        self.page.locator(".menu > summary", has_text=menu).click()
        self.page.locator(".menu-items button", has_text=item).locator("visible=true").click()

    def text(self, selector: str) -> str:
        """Return the text of the only element that matches."""
        return str(self.page.locator(selector).inner_text())

    def texts(self, selector: str) -> list[str]:
        """Return the texts of all elements that match."""
        return list(self.page.locator(selector).all_inner_texts())

    def until(self, condition: str, arg: Any = None) -> None:
        """Wait until a JavaScript function returns a true value."""
        self.page.wait_for_function(condition, arg=arg)

    def download(self, menu: str, item: str) -> tuple[str, str]:
        """Save a file from a menu. Returns its name and text."""
        with self.page.expect_download() as saved:
            self.choose(menu, item)
        return saved.value.suggested_filename, Path(saved.value.path()).read_bytes().decode()

    def screenshot(self, name: str) -> None:
        """Save a screenshot of the whole page."""
        SCREENSHOTS.mkdir(parents=True, exist_ok=True)
        self.page.evaluate("document.activeElement?.blur?.(); scrollTo(0, 0)")
        name = re.sub(r"[^\w-]+", "-", name)
        self.page.screenshot(
            path=SCREENSHOTS / f"{name}.png", full_page=True, animations="disabled"
        )

    def focused(self, what: str = "textContent") -> str:
        """Return a property of the focused element."""
        return str(self.page.evaluate(f"document.activeElement.{what}")).strip()

    @property
    def hash(self) -> str:
        """The address within the page."""
        return str(self.page.evaluate("decodeURIComponent(location.hash.replaceAll('+', ' '))"))

    @property
    def overflow(self) -> int:
        """By how many pixels the page is wider than the window."""
        width = "document.scrollingElement.scrollWidth - document.documentElement.clientWidth"
        return int(self.page.evaluate(width))
