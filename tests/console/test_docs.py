"""docs/console.md: its tables match the code, and its commands print what it shows."""

from __future__ import annotations

import json
import os
import re
import shutil
import subprocess
from pathlib import Path
from typing import Any

import pytest

from veldarin_simulator import parse_capture
from veldarin_simulator.console import arguments, scenario_store, security, server, session
from veldarin_simulator.console.app import ROUTES
from veldarin_simulator.console.errors import PROBLEMS
from veldarin_simulator.console.scenario_store import MAX_REPLY_BYTES

TEXT = (Path(__file__).parents[2] / "docs" / "console.md").read_text()
ADDRESS = "http://127.0.0.1:8430/"
EXAMPLES = re.findall(r"^\$ (curl .*)\n((?:(?!\$ |```).*\n)*)", TEXT, re.MULTILINE)
COMMANDS = re.findall(r"^(curl .*)$", TEXT, re.MULTILINE)

needs_curl = pytest.mark.skipif(shutil.which("curl") is None, reason="curl is not installed")


def run(command: str, url: str) -> Any:
    """Run a command of the page against the test's console; return its JSON output."""
    assert ADDRESS in command
    done = subprocess.run(
        ["sh", "-c", command.replace(ADDRESS, url)],
        # curl does not exit with the sanitizers' runtime preloaded.
        env={name: value for name, value in os.environ.items() if name != "LD_PRELOAD"},
        capture_output=True,
        text=True,
        timeout=60,
        check=True,
    )
    return json.loads(done.stdout)


def test_documented_requests_match_the_routes() -> None:
    listed = re.findall(r"^\| `([A-Z]+)` \| `(/api/\S+)` \| \S.* \|$", TEXT, re.MULTILINE)
    routes = [(route.method, re.sub(r":.*\}", "}", route.path)) for route in ROUTES]
    assert listed == routes


def test_documented_problems_match_the_table() -> None:
    listed = re.findall(r"^\| `/problems/(\S+)` \| (\d+) \| (.*) \|$", TEXT, re.MULTILINE)
    assert listed == [(name, str(one.status), one.title) for name, one in PROBLEMS.items()]


def test_documented_argument_encodings_match_the_decoders() -> None:
    rows = re.findall(r'^\| `(\{"\w+": .*\})` \|', TEXT, re.MULTILINE)
    encodings = [json.loads(row) for row in rows]
    arguments.decode_call({"arguments": encodings})
    assert [name for encoding in encodings for name in encoding] == list(arguments._DECODERS)


def test_documented_limits_match() -> None:
    words = " ".join(TEXT.split())
    mebibytes = [
        size // 1024**2
        for size in (security.MAX_BODY_BYTES, scenario_store.MAX_SCENARIO_BYTES, MAX_REPLY_BYTES)
    ]
    assert mebibytes == [8, 8, 1]
    assert "A body and a scenario have at most 8 MiB, a reply and a text to parse" in words
    connections, idle = server._MAX_CONNECTIONS, server._MAX_IDLE_SECONDS
    assert (
        f"at most {connections} connections and closes those that are idle for {idle} sec" in words
    )
    lines, seconds = parse_capture.MAX_LINES, parse_capture.MAX_SECONDS
    assert f"more than {lines} lines, or if it takes more than {seconds:g} seconds" in words
    assert f"for at most {session.MAX_WAIT:g} seconds" in words


@needs_curl
@pytest.mark.parametrize(("command", "output"), EXAMPLES)
def test_documented_output_is_printed(server: Any, command: str, output: str) -> None:
    printed, documented = run(command, server.url), json.loads(output)
    for response in (printed, documented):
        assert response.pop("microseconds", 1) > 0
        response.pop("code", None)
    assert printed == documented


@needs_curl
@pytest.mark.parametrize("command", COMMANDS)
def test_documented_command_succeeds(server: Any, command: str) -> None:
    response = run(command, server.url)
    assert "status" not in response
    assert "exception" not in response


def test_examples_are_found() -> None:
    assert (len(EXAMPLES), len(COMMANDS)) == (5, 6)
