"""Scenarios: recorded replies, as a value that is validated when it is created.

scenarios/README.md documents the file names for users: `SERVICE.json` holds the reply of a service,
`SERVICE KEY=VALUE.json` the reply to one request, `SERVICE.1.json` the first of a sequence;
`cli/COMMAND.txt` holds the output of a command.
"""

from __future__ import annotations

import json
import math
import os
import re
from collections.abc import Iterator, Mapping
from pathlib import Path
from types import MappingProxyType
from typing import Any, NoReturn
from urllib.parse import unquote_to_bytes

from veldarin_simulator.similar import did_you_mean

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
_SERIAL_NUMBER = "serial_number_ascii"

_SERVICE_FILE = re.compile(
    r"(?P<service>\w+)(?:\.(?P<step>[1-9]\d*))?(?P<request> [^= ]+=.*)?\.json", re.DOTALL
)
_COMMAND_STEP = re.compile(r"(?P<command>.+)\.(?P<step>[1-9]\d*)", re.DOTALL)

# The parts of a JSON text in which the last group is an error: constants that JSON does not have,
# surrogates that are not a pair.
_CONSTANT = re.compile(r'"(?:[^"\\]|\\.)*"|(-?Infinity|NaN)', re.DOTALL)
_SURROGATE = re.compile(r"\\u[dD][89abAB]..\\u[dD][c-fC-F]..|\\[^u]|(\\u[dD][89a-fA-F])", re.DOTALL)


class ScenarioError(ValueError):
    """A scenario that cannot be used. Its message is one line: "FILE:LINE:COLUMN: PROBLEM".

    Attributes:
        path: The file; relative if the scenario was not loaded from a directory.
        problem: The message without its location.
        line: The line, counted from 1, or None if the file as a whole is at fault.
        column: The column, in characters counted from 1, or None.
    """

    def __init__(
        self, path: Path, problem: str, line: int | None = None, column: int | None = None
    ) -> None:
        self.path, self.problem, self.line, self.column = path, problem, line, column
        location = "".join(f":{number}" for number in (line, column) if number is not None)
        # A file name may hold a line break.
        super().__init__(f"{str(path).encode('unicode_escape').decode()}{location}: {problem}")


class Scenario(Mapping[str, bytes]):
    """An immutable mapping from reply name to text.

    A reply name is a relative file name: "build_switch_lg_state.json", "cli/get system arp.txt". A
    sequence has one file for each call; the last one is for all further calls.

    Args:
        texts: The replies. Each is checked.

    Raises:
        ScenarioError: A name does not belong to a service or command, or the service cannot return
            its text.

    Attributes:
        services: Service name to its replies by request: "" or "KEY=VALUE" to the sequence of
            parsed replies.
        commands: Command, its words joined by single spaces, to the sequence of its outputs.
    """

    __slots__ = ("_texts", "commands", "services")

    def __init__(self, texts: Mapping[str, bytes] = MappingProxyType({})) -> None:
        self._texts = dict(sorted(texts.items()))
        services: dict[str, dict[str, dict[int, str]]] = {}
        outputs: dict[str, bytes] = {}
        for name, text in self._texts.items():
            if name.startswith(f"{_CLI}/"):
                outputs[_command_words(name)] = _checked_output(name, text)
            else:
                service, request, step = _service_file(name)
                services.setdefault(service, {}).setdefault(request, {})[step] = name
        self.services: Mapping[str, Mapping[str, tuple[Any, ...]]] = MappingProxyType(
            {
                service: {
                    request: tuple(_parsed(name, self._texts[name]) for name in _sequence(names))
                    for request, names in requests.items()
                }
                for service, requests in services.items()
            }
        )
        self.commands: Mapping[bytes, tuple[bytes, ...]] = MappingProxyType(_commands(outputs))

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
        root = os.path.realpath(folder)
        for path in _entries(folder):
            inside = _entries(path) if path.name == _CLI and path.is_dir() else [path]
            for file in inside:
                if os.path.commonpath([root, os.path.realpath(file)]) != root:
                    raise ScenarioError(file, "the link leads out of the scenario")
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

    def command_outputs(self, command: bytes) -> tuple[bytes, ...]:
        """Return the sequence of a command's outputs, empty if the scenario has none.

        Of several files whose names match, the one with the fewest words "{}" counts.
        """
        words = command.split()
        matching = [known for known in self.commands if _matches(known.split(), words)]
        if not matching:
            return ()
        return self.commands[min(matching, key=lambda known: known.split().count(_ANY_WORD))]


def changed_services(before: Scenario, after: Scenario) -> set[str]:
    """Return the services whose reply differs between two scenarios."""
    names = {name for name in {*before, *after} if before.get(name) != after.get(name)}
    return {
        CLI_SERVICE if name.startswith(f"{_CLI}/") else _service_file(name)[0] for name in names
    }


def request_names(request: Any) -> list[str]:
    """Return the names, "KEY=VALUE", of the files that hold the reply to a request.

    A value that is not a string is written as JSON. The key of a service that takes text is "text".
    """
    if isinstance(request, bytes):
        request = {"text": request.decode("utf-8", "surrogateescape")}
    return [
        f"{key}={value if isinstance(value, str) else json.dumps(value, ensure_ascii=False)}"
        for key, value in (request or {}).items()
    ]


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
    if path.exists() and not (path.is_file() or path.is_dir()):
        raise ScenarioError(path, "is not a regular file")
    try:
        return path.read_bytes()
    except OSError as error:
        raise ScenarioError(path, _reason(error)) from error


def _reason(error: OSError) -> str:
    return (error.strerror or str(error)).lower()


def _service_file(name: str) -> tuple[str, str, int]:
    """Return the service, the request and the position in the sequence (0: alone) of a file."""
    match = _SERVICE_FILE.fullmatch(name)
    if match and match["service"] in SERVICES:
        request = unquote_to_bytes(os.fsencode((match["request"] or "").lstrip(" ")))
        if match["service"] == _SERIAL_NUMBER and (match["step"] or request):
            raise ScenarioError(Path(name), f"the serial number is in {_SERIAL_NUMBER}.json")
        return match["service"], os.fsdecode(request), int(match["step"] or 0)
    hint = did_you_mean(re.split(r"[. ]", name)[0], SERVICES)
    problem = "no service has this name"
    raise ScenarioError(Path(name), f"{problem} ({hint[:-1]}.json?)" if hint else problem)


def _sequence(names: dict[int, str]) -> list[str]:
    """Return the files of a sequence, by position, in order."""
    if 0 in names and len(names) > 1:
        problem = f"is a step of a sequence, and {names[0]} is its only reply: remove one of them"
        raise ScenarioError(Path(names[min({*names} - {0})]), problem)
    for step in range(1, max(names) + 1):
        if step not in names:
            last = names[max(names)]
            missing = last.replace(f".{max(names)}", f".{step}", 1)
            raise ScenarioError(Path(missing), f"no such file: {last} needs all steps before it")
    return [names[step] for step in sorted(names)]


def _command_words(name: str) -> str:
    """Return the quoted command of a file in cli/."""
    file = name[len(f"{_CLI}/") :]
    if not file.endswith(".txt") or file.startswith(".") or "/" in file or "\0" in file:
        raise ScenarioError(Path(name), "expected the output of a command in COMMAND.txt")
    return file[: -len(".txt")]


def _commands(outputs: dict[str, bytes]) -> dict[bytes, tuple[bytes, ...]]:
    """Return the sequences of outputs.

    A number at the end may belong to the command ("... detail 192.0.2.1") or be a step. Both count:
    the file is the output of that command, and a step of the command without the number if that one
    has no output of its own and the steps begin with 1.
    """
    steps: dict[str, dict[int, bytes]] = {}
    for words, output in outputs.items():
        match = _COMMAND_STEP.fullmatch(words)
        if match:
            steps.setdefault(match["command"], {})[int(match["step"])] = output
    commands: dict[bytes, tuple[bytes, ...]] = {}
    for words, numbered in steps.items():
        count = next(step for step in range(1, len(numbered) + 2) if step not in numbered) - 1
        if count:
            commands[_unquoted(words)] = tuple(numbered[step] for step in range(1, count + 1))
    return {**commands, **{_unquoted(words): (output,) for words, output in outputs.items()}}


def _unquoted(words: str) -> bytes:
    return b" ".join(unquote_to_bytes(os.fsencode(words)).split())


def _checked_output(name: str, text: bytes) -> bytes:
    if b"\0" in text:
        _reject(name, text, text.index(b"\0"), "a NUL byte would end the text")
    return text


def _parsed(name: str, text: bytes) -> Any:
    service = _service_file(name)[0]
    try:
        decoded = text.decode("utf-8")
    except UnicodeDecodeError as error:
        _reject(name, text, error.start, "not UTF-8")

    def reject(offset: int, problem: str) -> NoReturn:
        _reject(name, text, len(decoded[:offset].encode()), problem)

    def reject_constant(constant: str) -> None:
        (found, *_) = (match for match in _CONSTANT.finditer(decoded) if match[1] == constant)
        reject(found.start(), f"{constant} is not valid JSON")

    def parse_float(number: str) -> float:
        if math.isinf(float(number)):
            reject(decoded.index(number), f"{number[:40]} is greater than every float")
        return float(number)

    try:
        value = json.loads(decoded, parse_constant=reject_constant, parse_float=parse_float)
        json.dumps(value, ensure_ascii=False).encode()
    except json.JSONDecodeError as error:
        reject(error.pos, f"not JSON: {error.msg}")
    except UnicodeEncodeError:
        (found, *_) = (match for match in _SURROGATE.finditer(decoded) if match[1])
        reject(found.start(), "lone surrogates are not allowed")
    except RecursionError:
        raise ScenarioError(Path(name), "not JSON: nested too deeply") from None
    begin = len(decoded) - len(decoded.lstrip())
    if service in _TEXT_SERVICES:
        if not isinstance(value, str) or "\0" in value:
            reject(begin, "expected a string without NUL")
        return value.encode()
    if service in _INTEGER_SERVICES:
        least, greatest = _INTEGER_SERVICES[service]
        if type(value) is not int or not least <= value <= greatest:
            reject(begin, f"expected an integer from {least} to {greatest}")
    return value


def _reject(name: str, text: bytes, offset: int, problem: str) -> NoReturn:
    """Raise a `ScenarioError` with the line and column of an offset."""
    before = text[:offset]
    line = before.count(b"\n") + 1
    column = len(before.rpartition(b"\n")[2].decode("utf-8", "replace")) + 1
    raise ScenarioError(Path(name), problem, line, column) from None
