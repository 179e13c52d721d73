"""The answers that can be edited: every native service and every command, by name; the file of a
scenario that holds an answer; what is answered without one.

A service is named as it is, a command by its text.
"""

from __future__ import annotations

import json
from typing import Any
from urllib.parse import unquote_to_bytes

from veldarin_simulator import RawJSON, Reply
from veldarin_simulator.console.errors import Problem
from veldarin_simulator.console.scenario_store import Files
from veldarin_simulator.scenario import DEFAULT_SCENARIO, SERVICES

# Commands that this machine answers without any file.
_LIVE_COMMANDS = (
    "get system arp",
    "get router info routing-table detail {}",
    "get router info bfd neighbor",
    "get router info6 bfd neighbor",
)
_LONGEST_FILE = len("cli/") + 255  # what file systems allow
_LONGEST_COMMAND = 127  # bytes; what is beyond does not reach the command line


def file_of(name: str, files: Files) -> str:
    """The scenario's file for an answer: the one there is, or the one to make. Raises `Problem`
    for a name that no answer can have."""
    if name in SERVICES:
        return f"{name}.json"
    command = name.encode("utf-8", "replace")
    words = b" ".join(command.split())
    if not words or b"\0" in words or len(words) > _LONGEST_COMMAND:
        raise Problem(422, f"a command has 1 to {_LONGEST_COMMAND} bytes, and no NUL")
    known = {name_of(file).encode(): file for file in files if file.startswith("cli/")}
    file = known.get(words, f"cli/{_quoted(words)}.txt")
    if len(file) > _LONGEST_FILE:
        raise Problem(422, "no file can have this command's name: it is too long")
    return file


def name_of(file: str) -> str:
    """The answer that a scenario's file holds."""
    if not file.startswith("cli/"):
        return file.removesuffix(".json")
    stem = file[len("cli/") : -len(".txt")]
    return b" ".join(unquote_to_bytes(stem).split()).decode("utf-8", "replace")


def _quoted(words: bytes) -> str:
    """As a file name: no slash, no hidden file, nothing but printable characters."""
    safe = b"".join(b"%%%02X" % byte if _unsafe(byte) else bytes([byte]) for byte in words)
    return ("%2E" + safe[1:].decode()) if safe.startswith(b".") else safe.decode()


def _unsafe(byte: int) -> bool:
    return byte < 0x20 or byte > 0x7E or byte in b"/%"


def names(files: Files) -> list[str]:
    """Every answer there can be, services first; commands with those of the scenario."""
    stock = DEFAULT_SCENARIO / "cli"
    recorded = [name_of(f"cli/{path.name}") for path in stock.glob("*.txt")]
    own = [name_of(file) for file in files if file.startswith("cli/")]
    return [*SERVICES, *sorted({*_LIVE_COMMANDS, *recorded, *own})]


def is_command(name: str) -> bool:
    """Whether an answer's name is a command's."""
    return name not in SERVICES


def present(name: str, answers: dict[str, Reply]) -> str:
    """What the answers of this machine say without a file: the text to begin editing with. Raises
    what the answer does."""
    if is_command(name):
        output = answers["get_cli_cmd_output"].reply
        printed = output(name.replace("{}", "ADDRESS").encode()) if callable(output) else output
        text = printed.reply if isinstance(printed, Reply) else printed
        return text.decode("utf-8", "replace") if isinstance(text, bytes) else str(text or "")
    answer = answers.get(name)
    if answer is None:
        return "null\n"
    reply: Any = answer.reply
    if callable(reply) and name.startswith("build_"):
        reply = reply({})
    if callable(reply) or isinstance(reply, RawJSON):
        return "0\n" if not name.startswith("cookieval") else '""\n'
    value = reply.decode() if isinstance(reply, bytes) else reply
    return json.dumps(value, indent=2, ensure_ascii=False) + "\n"
