"""The replies that can be edited: names, file names, default texts.

A service's reply has the name of its file without suffix, a command's output has the command as its
name.
"""

from __future__ import annotations

import json
import re
from typing import Any
from urllib.parse import unquote_to_bytes

from veldarin_simulator import RawJSON, Reply, Scenario, Simulator
from veldarin_simulator.console.errors import ApiError
from veldarin_simulator.scenario import CLI_SERVICE, DEFAULT_SCENARIO, SERVICES

# Commands that have live output.
_LIVE_COMMANDS = (
    "get system arp",
    "get router info routing-table detail {}",
    "get router info bfd neighbor",
    "get router info6 bfd neighbor",
)
_END_OF_SERVICE = re.compile(r"[. ]")
_MAX_FILE_NAME = len("cli/") + 255  # the limit of common file systems
_MAX_COMMAND_BYTES = 127  # the module's CLI runner cuts off the rest


def names(scenario: Scenario) -> list[str]:
    """Return the name of every reply: the services, the other files of services, the commands."""
    files = [file[: -len(".json")] for file in scenario if not file.startswith("cli/")]
    recorded = [_command(path.stem) for path in (DEFAULT_SCENARIO / "cli").glob("*.txt")]
    user = [command.decode("utf-8", "replace") for command in scenario.commands]
    return [*sorted({*SERVICES, *files}), *sorted({*_LIVE_COMMANDS, *recorded, *user})]


def is_command(name: str) -> bool:
    """Return whether a reply is the output of a command."""
    return service(name) not in SERVICES


def service(name: str) -> str:
    """Return the service of a reply, which may be one of several: the first word of its name."""
    return _END_OF_SERVICE.split(name, 1)[0]


def file_name(name: str, scenario: Scenario) -> str:
    """Return the scenario's file for a reply, whether or not the scenario has one.

    Raises:
        ApiError: No command can have the name.
    """
    if not is_command(name):
        return f"{name}.json"
    words = b" ".join(name.encode("utf-8", "replace").split())
    if not words or b"\0" in words or len(words) > _MAX_COMMAND_BYTES:
        detail = f"expected a command of 1 to {_MAX_COMMAND_BYTES} bytes without NUL"
        raise ApiError("invalid-name", detail)
    command = words.decode("utf-8", "replace")
    for file in scenario:
        if file.startswith("cli/") and _command(file[len("cli/") : -len(".txt")]) == command:
            return file
    file = f"cli/{_quote(words)}.txt"
    if len(file) > _MAX_FILE_NAME:
        raise ApiError("invalid-name", "the command is too long for a file name")
    return file


def default_text(name: str, simulator: Simulator) -> str:
    """Return the text of the reply that a simulator gives if its scenario has none.

    Raises:
        Exception: Whatever the provider of the reply raises.
    """
    name = name if is_command(name) else service(name)
    provided = simulator.provided_reply(CLI_SERVICE if is_command(name) else name)
    value: Any = None if provided is None else provided.reply
    if is_command(name):
        output = value(name.replace("{}", "ADDRESS").encode()).reply
        return output.decode("utf-8", "replace") if isinstance(output, bytes) else output or ""
    if callable(value) and name.startswith("build_"):
        value = value({})
    if callable(value) or isinstance(value, RawJSON):
        return '""\n' if name.startswith("cookieval") else "0\n"
    if isinstance(value, Reply):
        value = value.reply
    if isinstance(value, bytes):
        value = value.decode()
    return json.dumps(value, indent=2, ensure_ascii=False) + "\n"


def _command(stem: str) -> str:
    return b" ".join(unquote_to_bytes(stem).split()).decode("utf-8", "replace")


def _quote(words: bytes) -> str:
    """Return a file name: printable ASCII, no slash, no dot at the beginning."""
    kept = {*range(0x20, 0x7F)} - {*b"/%"}
    quoted = "".join(chr(byte) if byte in kept else f"%{byte:02X}" for byte in words)
    return f"%2E{quoted[1:]}" if quoted.startswith(".") else quoted
