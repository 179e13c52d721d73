"""Run the module's parsers on captured command-line texts.

For the command `parse` and the console: the result, the failing line, and which line each value
came from. A text reaches the parser as the command line would return it, with carriage returns and
pager prompts. Lines are found by parsing changed texts, so no parser is implemented twice.
"""

from __future__ import annotations

import re
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from typing import Any, NamedTuple

from veldarin_simulator import module_log
from veldarin_simulator.simulator import Simulator

# The position of a value in a result: keys and indexes, outermost first.
Path = tuple[Any, ...]

# `line_origins` parses the text once for each line: it gives up beyond these limits.
MAX_LINES = 500
MAX_SECONDS = 2.0

_CLI_SERVICE = "get_cli_cmd_output"
_WORD = re.compile(rb"[^\s,]+")


class Parser(NamedTuple):
    """A parser of the module; `header` begins the first of the `header_lines` that it needs."""

    run: Callable[[Any], Any]
    header: bytes
    header_lines: int
    command: str


PARSERS = {
    "arp": Parser(lambda module: module.get_system_arp_result(), b"Address", 1, "get system arp"),
    "routing": Parser(
        lambda module: module.get_routing_table_result("captured"),
        b"Routing",
        3,
        "get router info routing-table detail ADDRESS",
    ),
    # A dictionary of its own, because the shared one would keep its sessions.
    "bfd": Parser(
        lambda module: module.get_bfd_neighbor("captured", {}),
        b"peer",
        1,
        "get router info bfd neighbor",
    ),
}


@dataclass(frozen=True)
class ParseResult:
    """The result of a parser, or its error."""

    result: Any = None
    error: Exception | None = None
    line: int | None = None  # the failing line, counted from 1, if it is a single one
    problem: str = ""  # a description of the error
    skipped: list[str] = field(default_factory=list)  # the parser's log messages
    end: int | None = None  # the offset of the NUL byte that ends the text, if it has one


def recognize(text: bytes) -> str | None:
    """Return the kind of a text: that of the first line that begins a header, or None."""
    found = _find_header(text, *(parser.header for parser in PARSERS.values()))
    return None if found is None else next(k for k, p in PARSERS.items() if p.header == found[1])


def parse(simulator: Simulator, parser: Parser, text: bytes) -> ParseResult:
    """Run a parser on a text.

    Like `line_origins`, it resets the reply of the command line at the end.
    """
    end = text.index(0) if 0 in text else None
    text = text[:end]
    with _command_line(simulator):
        try:
            with module_log.capture() as records:
                result = _run(simulator, parser, text)
        except Exception as error:
            line, problem = _find_failing_line(simulator, parser, text, error)
            return ParseResult(error=error, line=line, problem=problem, end=end)
    return ParseResult(result=result, skipped=[one.message for one in records], end=end)


def line_origins(
    simulator: Simulator, parser: Parser, text: bytes, result: Any
) -> dict[int, list[Path]] | None:
    """Return, for each line counted from 1, the values of the result that came from it.

    A value is attributed to a line if changing that line's words changes the value. An element of a
    list counts as one value.

    Returns:
        The lines that brought values; None if the text has more than `MAX_LINES` lines or takes
        more than `MAX_SECONDS`.
    """
    lines = text.partition(b"\0")[0].split(b"\n")
    if len(lines) > MAX_LINES:
        return None
    deadline = time.monotonic() + MAX_SECONDS
    values = dict(_values(result))
    origins: dict[int, list[Path]] = {}
    with _command_line(simulator):
        for index, line in enumerate(lines):
            if time.monotonic() > deadline:
                return None
            mutated = _mutate(line)
            if mutated == line:
                continue
            changed = b"\n".join([*lines[:index], mutated, *lines[index + 1 :]])
            try:
                others = _run(simulator, parser, changed)
            except Exception:
                continue  # the parser needs the line, which yields no value by itself
            if parser is PARSERS["bfd"] and len(others) == len(result):
                others = dict(zip(result, others.values()))  # the same session, renamed
            now = dict(_values(others))
            paths = [path for path, value in values.items() if now.get(path) != value]
            if paths:
                origins[index + 1] = paths
    return origins


@contextmanager
def _command_line(simulator: Simulator) -> Iterator[None]:
    try:
        yield
    finally:
        simulator.reset_reply(_CLI_SERVICE)


def _run(simulator: Simulator, parser: Parser, text: bytes) -> Any:
    simulator.set_reply(_CLI_SERVICE, text)
    return parser.run(simulator.module)


def _mutate(line: bytes) -> bytes:
    """Append a mark to each word except the first, by which parsers recognize a line.

    The first word is marked too if it is the only one.
    """
    words = list(_WORD.finditer(line))
    for word in reversed(words[1:] or words):
        line = line[: word.end()] + b"~" + line[word.end() :]
    return line


def _values(result: Any, path: Path = ()) -> Iterator[tuple[Path, Any]]:
    if isinstance(result, dict):
        for key, value in result.items():
            yield from _values(value, (*path, key))
    elif isinstance(result, list):
        yield from (((*path, index), value) for index, value in enumerate(result))
    else:
        yield path, result


def _find_failing_line(
    simulator: Simulator, parser: Parser, text: bytes, error: Exception
) -> tuple[int | None, str]:
    """Find the line at which the parser fails, and describe the problem.

    The parser skips the lines before the header, needs the lines of the header, and then fails at
    the first bad line: bisection finds it.
    """
    if isinstance(error, UnicodeDecodeError):
        line = text.count(b"\n", 0, error.start) + 1
        return line, f"not UTF-8: byte 0x{text[error.start]:02x}"
    lines = text.split(b"\n")
    header = _find_header(text, parser.header)
    if header is None:
        return None, f'no line begins with "{parser.header.decode()}"'

    def parses(count: int) -> bool:
        try:
            _run(simulator, parser, b"\n".join(lines[:count]))
        except Exception:
            return False
        return True

    good = header[0] + parser.header_lines
    if not parses(good):
        return header[0] + 1, "the parser rejects the header that begins here"
    bad = len(lines)
    while bad - good > 1:
        middle = (good + bad) // 2
        good, bad = (middle, bad) if parses(middle) else (good, middle)
    shown = lines[bad - 1].decode("utf-8", "backslashreplace").strip()
    return bad, f"the parser rejects this line: {shown[:100]!r}"


def _find_header(text: bytes, *headers: bytes) -> tuple[int, bytes] | None:
    """Return the index of the first line that begins with one of the words, and the word."""
    plain = text.decode("utf-8", "replace").replace("--More--", "").replace("\r", "")
    words = "|".join(header.decode() for header in headers)
    found = re.search(rf"^[^\S\n]*({words})", plain, re.MULTILINE)
    return None if found is None else (plain.count("\n", 0, found.end()), found[1].encode())
