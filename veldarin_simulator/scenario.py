"""Recorded answers: a scenario directory read into memory, checked before anything is answered.

File names are documented for users in scenarios/README.md: `<service>.json` holds what a
service answers, `cli/<command>.txt` what the command line prints.
"""

from __future__ import annotations

import difflib
import json
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any
from urllib.parse import unquote_to_bytes

DEFAULT_SCENARIO = Path(__file__).resolve().parent / "scenarios" / "default"

_BRIDGED = frozenset(
    {
        "build_switch_acl_ingress_stats",
        "build_switch_stp_state",
        "build_switch_lg_state",
        "build_switch_flapguard_status",
        "build_switch_port_statistics",
        "build_switch_lldp_state",
        "build_switch_trunk_state",
        "build_switch_igmp_snooping_group",
        "build_switch_modules_summary",
        "build_system_interface_physical",
        "build_system_flash_list",
        "build_system_link_monitor_status",
        "build_system_sniffer_profile_summary",
        "build_start_sniffer_profile_capture",
        "build_stop_sniffer_profile_capture",
        "build_pause_sniffer_profile_capture",
        "build_delete_sniffer_profile_capture",
    }
)
# Least and greatest value of the services that answer a C integer.
_NUMBERS = {
    "aps_get_new_cookie_id": (0, 2**32 - 1),
    "__get_aps_hash": (0, 2**32 - 1),
    "gui_chk_cert_expiration": (-(2**31), 2**31 - 1),
}
_TEXTS = frozenset({"cookieval_wrap", "cookieval_unwrap", "serial_number_ascii"})
SERVICES = sorted({*_BRIDGED, *_NUMBERS, *_TEXTS})

_CLI = "cli"
_ANY_WORD = b"{}"


class ScenarioError(ValueError):
    """A scenario that cannot be used. Its text is one line: the file, the line if there is one,
    what is wrong."""

    def __init__(self, path: Path, problem: str, line: int | None = None) -> None:
        self.path, self.problem, self.line = path, problem, line
        super().__init__(f"{path}{'' if line is None else f':{line}'}: {problem}")


@dataclass(frozen=True)
class Scenario:
    """What a scenario directory holds."""

    services: dict[str, Any] = field(default_factory=dict)  # service name -> value of its file
    commands: dict[bytes, bytes] = field(default_factory=dict)  # command -> printed text

    def command_output(self, command: bytes) -> bytes | None:
        """The text printed for the command, or None. Of several files whose names fit, the one
        with the fewest words "{}": the command itself before any pattern."""
        words = command.split()
        fitting = [known for known in self.commands if _fits(known.split(), words)]
        if not fitting:
            return None
        return self.commands[min(fitting, key=lambda known: known.split().count(_ANY_WORD))]


def load(directory: Path) -> Scenario:
    """The scenario in a directory. Raises `ScenarioError` for a directory that cannot be read, a
    file name that stands for no service, and a file that does not hold what its service answers."""
    scenario = Scenario()
    for path in _entries(directory):
        if path.name == _CLI and path.is_dir():
            for text in _entries(path):
                scenario.commands[_command(text)] = _printed(text)
        elif path.name != "README.md":
            scenario.services[_service(path)] = _value(path)
    return scenario


def row_filter(value: Any) -> Any:
    """A reply for `Appliance.set_reply` that gives the recorded value, without the rows that the
    request rules out: of a list, an object that carries a key of the request with another value."""
    if not isinstance(value, list):
        return value

    def reply(request: Any) -> Any:
        return [row for row in value if not _ruled_out(row, request or {})]

    return reply


def _ruled_out(row: Any, request: dict[str, Any]) -> bool:
    # Identifiers arrive as numbers or as text: 7 asks for "7" too.
    return isinstance(row, dict) and any(
        key in row and wanted is not None and str(row[key]) != str(wanted)
        for key, wanted in request.items()
    )


def _fits(known: list[bytes], words: list[bytes]) -> bool:
    return len(known) == len(words) and all(a in (_ANY_WORD, b) for a, b in zip(known, words))


def _entries(directory: Path) -> list[Path]:
    try:
        found = sorted(directory.iterdir())
    except OSError as error:
        raise ScenarioError(directory, _reason(error)) from error
    return [path for path in found if not path.name.startswith(".")]


def _service(path: Path) -> str:
    if path.suffix == ".json" and path.stem in SERVICES:
        return path.stem
    near = difflib.get_close_matches(path.stem, SERVICES, n=1)
    hint = f" (did you mean {near[0]}.json?)" if near else ""
    raise ScenarioError(path, f"no service has this name{hint}")


def _command(path: Path) -> bytes:
    if path.suffix != ".txt":
        raise ScenarioError(path, "the text of a command is kept in COMMAND.txt")
    return b" ".join(unquote_to_bytes(path.stem).split())


def _printed(path: Path) -> bytes:
    text = _content(path)
    if b"\0" in text:
        raise ScenarioError(path, "a NUL byte would end the text", _line(text, text.index(b"\0")))
    return text


def _value(path: Path) -> Any:
    content = _content(path)
    try:
        value = json.loads(content.decode("utf-8"), parse_constant=_refuse_constant)
    except UnicodeDecodeError as error:
        raise ScenarioError(path, "not UTF-8", _line(content, error.start)) from error
    except json.JSONDecodeError as error:
        problem = f"not JSON: {error.msg} (column {error.colno})"
        raise ScenarioError(path, problem, error.lineno) from error
    except (ValueError, RecursionError) as error:
        raise ScenarioError(path, f"not JSON: {error}") from error
    try:
        json.dumps(value, ensure_ascii=False).encode()
    except UnicodeEncodeError as error:
        raise ScenarioError(path, "half a surrogate pair is no character") from error
    return _checked(path, value)


def _refuse_constant(name: str) -> None:
    raise ValueError(f"{name} is no JSON number")


def _checked(path: Path, value: Any) -> Any:
    if path.stem in _TEXTS:
        if not isinstance(value, str) or "\0" in value:
            raise ScenarioError(path, "the service answers a text without NUL")
        return value.encode()
    if path.stem in _NUMBERS:
        least, greatest = _NUMBERS[path.stem]
        if type(value) is not int or not least <= value <= greatest:
            raise ScenarioError(path, f"the service answers an integer, {least} to {greatest}")
    return value


def _content(path: Path) -> bytes:
    try:
        return path.read_bytes()
    except OSError as error:
        raise ScenarioError(path, _reason(error)) from error


def _line(content: bytes, offset: int) -> int:
    return content.count(b"\n", 0, offset) + 1


def _reason(error: OSError) -> str:
    return (error.strerror or str(error)).lower()
