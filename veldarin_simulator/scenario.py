"""Scenarios: recorded replies, as a value that is validated when it is created.

scenarios/README.md documents the file names for users: `SERVICE.json` holds the reply of a service,
`cli/COMMAND.txt` the output of a command.
"""

from __future__ import annotations

import difflib
import json
import os
import re
from collections.abc import Iterator, Mapping
from pathlib import Path
from types import MappingProxyType
from typing import Any
from urllib.parse import unquote_to_bytes

DEFAULT_SCENARIO = Path(__file__).resolve().parent / "scenarios" / "default"

# The table that generates the exported functions.
_TABLE = Path(__file__).resolve().parent / "native" / "services.h"
_JSON_SERVICES = frozenset(re.findall(r"\bROW\((build_\w+)\)", _TABLE.read_text()))
# The range of the services that return a C integer.
_INTEGER_SERVICES = {
    "aps_get_new_cookie_id": (0, 2**32 - 1),
    "__get_aps_hash": (0, 2**32 - 1),
    "gui_chk_cert_expiration": (-(2**31), 2**31 - 1),
}
_TEXT_SERVICES = frozenset({"cookieval_wrap", "cookieval_unwrap", "serial_number_ascii"})
SERVICES = sorted({*_JSON_SERVICES, *_INTEGER_SERVICES, *_TEXT_SERVICES})

CLI_SERVICE = "get_cli_cmd_output"  # its replies are the files in cli/
_CLI = "cli"
_ANY_WORD = b"{}"


class ScenarioError(ValueError):
    """A scenario that cannot be used. Its message is one line: file, line if known, problem.

    Attributes:
        path: The file; relative if the scenario was not loaded from a directory.
        problem: The message without file and line.
        line: The line, counted from 1, or None.
        column: The column of a JSON syntax error, counted from 1, or None.
    """

    def __init__(
        self, path: Path, problem: str, line: int | None = None, column: int | None = None
    ) -> None:
        self.path, self.problem, self.line, self.column = path, problem, line, column
        super().__init__(f"{path}{'' if line is None else f':{line}'}: {problem}")


class Scenario(Mapping[str, bytes]):
    """An immutable mapping from reply name to text.

    A reply name is a relative file name: "build_switch_lg_state.json", "cli/get system arp.txt".

    Args:
        texts: The replies. Each is checked.

    Raises:
        ScenarioError: A name does not belong to a service or command, or the service cannot return
            its text.

    Attributes:
        services: Service name to the parsed reply.
        commands: Command, its words joined by single spaces, to its output.
    """

    __slots__ = ("_texts", "commands", "services")

    def __init__(self, texts: Mapping[str, bytes] = MappingProxyType({})) -> None:
        self._texts = dict(sorted(texts.items()))
        services: dict[str, Any] = {}
        commands: dict[bytes, bytes] = {}
        for name, text in self._texts.items():
            if name.startswith(f"{_CLI}/"):
                commands[_command(name)] = _checked_output(name, text)
            else:
                services[_service(name)] = _parsed(name, text)
        self.services: Mapping[str, Any] = MappingProxyType(services)
        self.commands: Mapping[bytes, bytes] = MappingProxyType(commands)

    def __getitem__(self, name: str) -> bytes:
        return self._texts[name]

    def __iter__(self) -> Iterator[str]:
        return iter(self._texts)

    def __len__(self) -> int:
        return len(self._texts)

    def __repr__(self) -> str:
        return f"Scenario({self._texts!r})"

    @classmethod
    def load(cls, folder: Path) -> Scenario:
        """Read the scenario in a directory.

        Raises:
            ScenarioError: The directory cannot be read, or holds what `Scenario` rejects.
        """
        texts = {}
        for path in _entries(folder):
            inside = _entries(path) if path.name == _CLI and path.is_dir() else [path]
            for file in inside:
                texts[file.relative_to(folder).as_posix()] = _content(file)
        try:
            return cls(texts)
        except ScenarioError as error:
            path = folder / error.path
            raise ScenarioError(path, error.problem, error.line, error.column) from error

    def save(self, folder: Path) -> None:
        """Write the scenario to a directory, and delete replies that it does not contain.

        Raises:
            OSError: The directory or a file cannot be written.
        """
        (folder / _CLI).mkdir(parents=True, exist_ok=True)
        for name, text in self.items():
            (folder / name).write_bytes(text)
        for path in [*_entries(folder / _CLI), *_entries(folder)]:
            if path.relative_to(folder).as_posix() not in self and not path.is_dir():
                path.unlink()

    def with_reply(self, name: str, text: bytes | None) -> Scenario:
        """Return a copy in which the reply has this text; None removes it.

        Raises:
            ScenarioError: As in `Scenario`.
        """
        others = {known: held for known, held in self.items() if known != name}
        return Scenario(others if text is None else {**others, name: text})

    def command_output(self, command: bytes) -> bytes | None:
        """Return the output of a command, or None.

        Of several files whose names match, the one with the fewest words "{}" counts.
        """
        words = command.split()
        matching = [known for known in self.commands if _matches(known.split(), words)]
        if not matching:
            return None
        return self.commands[min(matching, key=lambda known: known.split().count(_ANY_WORD))]


def changed_services(before: Scenario, after: Scenario) -> set[str]:
    """Return the services whose reply differs between two scenarios."""
    names = {name for name in {*before, *after} if before.get(name) != after.get(name)}
    return {CLI_SERVICE if name.startswith(f"{_CLI}/") else _service(name) for name in names}


def filter_rows(value: Any) -> Any:
    """Return a reply for `Simulator.set_reply` that contains the recorded value.

    If the value is a list, the reply leaves out each object in which a key of the request has
    another value.
    """
    if not isinstance(value, list):
        return value

    def reply(request: Any) -> Any:
        return [row for row in value if not _excluded(row, request or {})]

    return reply


def _excluded(row: Any, request: dict[str, Any]) -> bool:
    # Identifiers arrive as numbers or as strings: 7 selects "7" too.
    return isinstance(row, dict) and any(
        key in row and wanted is not None and str(row[key]) != str(wanted)
        for key, wanted in request.items()
    )


def _matches(known: list[bytes], words: list[bytes]) -> bool:
    return len(known) == len(words) and all(a in (_ANY_WORD, b) for a, b in zip(known, words))


def _entries(folder: Path) -> list[Path]:
    try:
        found = sorted(folder.iterdir())
    except OSError as error:
        raise ScenarioError(folder, _reason(error)) from error
    return [path for path in found if not path.name.startswith(".") and path.name != "README.md"]


def _content(path: Path) -> bytes:
    try:
        return path.read_bytes()
    except OSError as error:
        raise ScenarioError(path, _reason(error)) from error


def _reason(error: OSError) -> str:
    return (error.strerror or str(error)).lower()


def _service(name: str) -> str:
    stem = name[: -len(".json")]
    if name.endswith(".json") and stem in SERVICES:
        return stem
    near = difflib.get_close_matches(name.rpartition(".")[0], SERVICES, n=1)
    hint = f" (did you mean {near[0]}.json?)" if near else ""
    raise ScenarioError(Path(name), f"no service has this name{hint}")


def _command(name: str) -> bytes:
    file = name[len(f"{_CLI}/") :]
    if not file.endswith(".txt") or file.startswith(".") or "/" in file or "\0" in file:
        raise ScenarioError(Path(name), "expected the output of a command in COMMAND.txt")
    return b" ".join(unquote_to_bytes(os.fsencode(file[: -len(".txt")])).split())


def _checked_output(name: str, text: bytes) -> bytes:
    if b"\0" in text:
        line = _line(text, text.index(b"\0"))
        raise ScenarioError(Path(name), "a NUL byte would end the text", line)
    return text


def _parsed(name: str, text: bytes) -> Any:
    path = Path(name)
    try:
        value = json.loads(text.decode("utf-8"), parse_constant=_reject_constant)
    except UnicodeDecodeError as error:
        raise ScenarioError(path, "not UTF-8", _line(text, error.start)) from error
    except json.JSONDecodeError as error:
        problem = f"not JSON: {error.msg} (column {error.colno})"
        raise ScenarioError(path, problem, error.lineno, error.colno) from error
    except (ValueError, RecursionError) as error:
        raise ScenarioError(path, f"not JSON: {error}") from error
    try:
        json.dumps(value, ensure_ascii=False).encode()
    except UnicodeEncodeError as error:
        raise ScenarioError(path, "lone surrogates are not allowed") from error
    if path.stem in _TEXT_SERVICES:
        if not isinstance(value, str) or "\0" in value:
            raise ScenarioError(path, "expected a string without NUL")
        return value.encode()
    if path.stem in _INTEGER_SERVICES:
        least, greatest = _INTEGER_SERVICES[path.stem]
        if type(value) is not int or not least <= value <= greatest:
            raise ScenarioError(path, f"expected an integer from {least} to {greatest}")
    return value


def _reject_constant(name: str) -> None:
    raise ValueError(f"{name} is not valid JSON")


def _line(content: bytes, offset: int) -> int:
    return content.count(b"\n", 0, offset) + 1
