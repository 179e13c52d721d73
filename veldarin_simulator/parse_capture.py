"""Captured command-line texts through the module's own parsers: what they make of a text, where
they stumble, and which line a value came from. For `parse` and the console.

The text reaches the parser as the command line would have handed it over: carriage returns, pager
prompts and all. Where a value came from is found with the parser itself, by changing the text; no
parser is written a second time here.
"""

from __future__ import annotations

import logging
import re
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from typing import Any, NamedTuple

from veldarin_simulator import Simulator

# Where a value stands in a result: keys and places, from the outside in.
Path = tuple[Any, ...]

# A text of more lines is not searched for where its values came from: it is parsed once per line.
MOST_LINES = 500

_WORD = re.compile(rb"[^\s,]+")


class Kind(NamedTuple):
    """What of a kind of text the module parses, the word that begins its header line, and the
    command that prints such a text."""

    parse: Callable[[Any], Any]
    header: bytes
    command: str


KINDS = {
    "arp": Kind(lambda module: module.get_system_arp_result(), b"Address", "get system arp"),
    "routing": Kind(
        lambda module: module.get_routing_table_result("captured"),
        b"Routing",
        "get router info routing-table detail ADDRESS",
    ),
    # With a dictionary of its own: the shared one would stay filled.
    "bfd": Kind(
        lambda module: module.get_bfd_neighbor("captured", {}),
        b"peer",
        "get router info bfd neighbor",
    ),
}


@dataclass(frozen=True)
class Outcome:
    """What a parser made of a text: a result, or an error and where it stumbled."""

    result: Any = None
    error: Exception | None = None
    line: int | None = None  # of the error, counted from 1; None: it is no single line
    problem: str = ""  # of the error, in words
    passed_over: list[str] = field(default_factory=list)  # what the parser logged
    end: int | None = None  # the offset of the NUL byte that the text ends at, if it has one


def parsed(simulator: Simulator, kind: Kind, text: bytes) -> Outcome:
    """Runs the parser. The device's command line answers with captured texts from then on."""
    end = text.index(0) if 0 in text else None
    text = text[:end]
    try:
        with _logged(simulator.module.__name__) as lines:
            result = _run(simulator, kind, text)
    except Exception as error:
        line, problem = _stumbled(simulator, kind, text)
        return Outcome(error=error, line=line, problem=problem, end=end)
    return Outcome(result=result, passed_over=lines, end=end)


def origins(
    simulator: Simulator, kind: Kind, text: bytes, result: Any
) -> dict[int, list[Path]] | None:
    """Line, counted from 1, to the values of the result that came from it; None for a text that is
    too long to tell.

    A value came from a line if it is another one once the words of that line are. An element of a
    list counts as one value.
    """
    lines = text.partition(b"\0")[0].split(b"\n")
    if len(lines) > MOST_LINES:
        return None
    values = dict(_values(result))
    found: dict[int, list[Path]] = {}
    for place, line in enumerate(lines):
        changed = _changed(line)
        if changed == line:
            continue
        try:
            others = _run(
                simulator, kind, b"\n".join([*lines[:place], changed, *lines[place + 1 :]])
            )
        except Exception:
            continue  # the line holds up the text, no value came of it alone
        if kind is KINDS["bfd"] and len(others) == len(result):
            others = dict(zip(result, others.values()))  # under another name: the same session
        now = dict(_values(others))
        paths = [path for path, value in values.items() if now.get(path) != value]
        if paths:
            found[place + 1] = paths
    return found


def _run(simulator: Simulator, kind: Kind, text: bytes) -> Any:
    simulator.set_reply("get_cli_cmd_output", text)
    return kind.parse(simulator.module)


def _changed(line: bytes) -> bytes:
    """The line with other words, a mark at the end of each. The first stays, by which parsers know
    a line, if it is not the only one."""
    words = list(_WORD.finditer(line))
    for word in reversed(words[1:] or words):
        line = line[: word.end()] + b"~" + line[word.end() :]
    return line


def _values(result: Any, path: Path = ()) -> Iterator[tuple[Path, Any]]:
    if isinstance(result, dict):
        for key, value in result.items():
            yield from _values(value, (*path, key))
    elif isinstance(result, list):
        yield from (((*path, place), value) for place, value in enumerate(result))
    else:
        yield path, result


@contextmanager
def _logged(name: str) -> Iterator[list[str]]:
    """What is logged meanwhile, at any level."""
    lines: list[str] = []

    class Collector(logging.Handler):
        def emit(self, record: logging.LogRecord) -> None:
            lines.append(record.getMessage())

    logger, collector = logging.getLogger(name), Collector()
    level = logger.level
    logger.setLevel(logging.DEBUG)
    logger.addHandler(collector)
    try:
        yield lines
    finally:
        logger.removeHandler(collector)
        logger.setLevel(level)


def _stumbled(simulator: Simulator, kind: Kind, text: bytes) -> tuple[int | None, str]:
    """What the parser's exception does not tell: the line that it stumbled over.

    Found with the parser itself. It takes the text up to some line and refuses it with one more:
    that one is the line. It takes no beginning at all: the header is the matter.
    """
    lines = text.split(b"\n")

    def takes(count: int) -> bool:
        try:
            _run(simulator, kind, b"\n".join(lines[:count]))
        except Exception:
            return False
        return True

    good = next((count for count in range(1, len(lines)) if takes(count)), None)
    if good is None:
        header = kind.header
        found = [number for number, line in enumerate(lines, 1) if line.strip().startswith(header)]
        if not found:
            return None, f'no line begins with "{header.decode()}"'
        return found[0], "the parser refuses the header that begins here"
    bad = len(lines)
    while bad - good > 1:
        middle = (good + bad) // 2
        good, bad = (middle, bad) if takes(middle) else (good, middle)
    shown = lines[bad - 1].decode("utf-8", "backslashreplace").strip()
    return bad, f"the parser refuses this line: {shown[:100]!r}"
