"""What the pages say of the console's HTTP interface is so: its requests are those there are, and
each command shown is run with curl."""

from __future__ import annotations

import json
import os
import re
import shutil
import subprocess
from collections.abc import Iterator
from typing import Any

import pytest

from tests.support import isolated
from tests.support.console import SECONDS, running
from veldarin_simulator.console import arguments, security
from veldarin_simulator.console.app import ROUTES

README = (isolated.ROOT / "README.md").read_text()
PAGE = (isolated.ROOT / "docs" / "console.md").read_text()
ADDRESS = "http://127.0.0.1:8430/"
SHOWN = re.findall(r"^\$ (curl .*)\n((?:(?!\$ |```).*\n)*)", PAGE, re.MULTILINE)
COMMANDS = [
    line
    for block in re.findall(r"^```sh\n(.*?)^```", README, re.M | re.S)
    for line in block.splitlines()
]

# Without the sanitizers' runtime, in which curl does not come to an end.
ALONE = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
needs_curl = pytest.mark.skipif(shutil.which("curl") is None, reason="curl is not installed")


@pytest.fixture(scope="module")
def served(build: None, tmp_path_factory: pytest.TempPathFactory) -> Iterator[str]:
    """Where a console listens."""
    with running(tmp_path_factory.mktemp("console")) as (_, host, port):
        yield f"http://{host}:{port}/"


def answered(command: str, served: str) -> Any:
    """What a command that is shown prints, run against the console of the test."""
    assert ADDRESS in command
    done = subprocess.run(
        ["sh", "-c", command.replace(ADDRESS, served)],
        env=ALONE,
        capture_output=True,
        text=True,
        timeout=SECONDS,
        check=True,
    )
    return json.loads(done.stdout)


def test_the_requests_of_the_readme_are_those_there_are() -> None:
    listed = re.findall(r"^\| `(GET|POST)` \| `(/api/\S+)` \| \S.* \|$", README, re.MULTILINE)
    assert listed == [(method, path.replace(":.+}", "}")) for method, path, _ in ROUTES]


def test_the_forms_of_arguments_are_those_there_are() -> None:
    listed = re.findall(r'^\| `(\{"\w+": .*\})` \|', PAGE, re.MULTILINE)
    forms = [json.loads(form) for form in listed]
    arguments.arguments({"arguments": forms})
    assert [name for form in forms for name in form] == list(arguments._FORMS)


def test_the_limit_is_the_one_there_is() -> None:
    assert "A body may have 1 MiB." in PAGE
    assert security.MOST_BYTES == 1024 * 1024


@needs_curl
@pytest.mark.parametrize(("command", "output"), SHOWN)
def test_curl_prints_what_is_shown(served: str, command: str, output: str) -> None:
    now, shown = answered(command, served), json.loads(output)
    for told in (now, shown):
        assert told.pop("microseconds", 1) > 0
    assert now == shown


@needs_curl
@pytest.mark.parametrize("command", COMMANDS)
def test_a_command_of_the_readme_succeeds(served: str, command: str) -> None:
    told = answered(command, served)
    assert "error" not in told
    assert "raised" not in told


def test_there_are_commands_to_try() -> None:
    assert len(SHOWN) == 5
    assert len(COMMANDS) == 5
