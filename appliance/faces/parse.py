"""`python -m appliance parse`: a captured CLI text through the module's own parser, as JSON.

For people who debug a device's output. The text reaches the parser as the command line would have
handed it over: carriage returns, pager prompts and all.
"""

from __future__ import annotations

import logging
import sys
import traceback
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any, NamedTuple

from appliance import Appliance
from appliance.faces import terminal
from appliance.faces.call import as_json

_DESCRIPTION = """\
Runs a captured command-line text through the parser of
veldarin.modules.modules_util and prints what it makes of it as JSON.

  arp      the output of "get system arp"
  routing  the output of "get router info routing-table detail ADDRESS"
  bfd      the output of "get router info bfd neighbor" (or info6)

A text that the parser refuses is answered with the line that it stumbled over.
The BFD parser refuses nothing: what it passes over is said on standard error.
"""
_EXIT_STATUS = "exit status: 0 parsed, 1 refused by the parser, 2 usage"

_Parse = Callable[[Any], Any]


class _Kind(NamedTuple):
    """What of a kind of text the module parses, and the word that begins its header line."""

    parse: _Parse
    header: bytes


_KINDS = {
    "arp": _Kind(lambda module: module.get_system_arp_result(), b"Address"),
    "routing": _Kind(lambda module: module.get_routing_table_result("captured"), b"Routing"),
    # With a dictionary of its own: the shared one would stay filled.
    "bfd": _Kind(lambda module: module.get_bfd_neighbor("captured", {}), b"peer"),
}


def main(texts: list[str]) -> int:
    """Runs the tool; returns its exit status."""
    options = _parser().parse_args(texts)
    name = "standard input" if options.file == "-" else options.file
    text = _content(options.file)
    if b"\0" in text:
        terminal.say(f"{name}: the text ends at its first NUL byte, offset {text.index(0)}")
        text = text[: text.index(0)]
    with terminal.open_appliance(live=False) as device:
        return _parsed(device, _KINDS[options.kind], text, name)


def _parser() -> terminal.Parser:
    parser = terminal.Parser("parse", description=_DESCRIPTION, epilog=_EXIT_STATUS)
    parser.add_argument("kind", choices=tuple(_KINDS), help="which parser")
    parser.add_argument("file", metavar="FILE", help="the captured text; - for standard input")
    return parser


def _content(file: str) -> bytes:
    if file == "-":
        return sys.stdin.buffer.read()
    try:
        return Path(file).read_bytes()
    except OSError as error:
        terminal.stop(f"{file}: {(error.strerror or str(error)).lower()}", terminal.USAGE)


def _parsed(device: Appliance, kind: _Kind, text: bytes, name: str) -> int:
    module = device.module

    def run(given: bytes) -> Any:
        device.answer("get_cli_cmd_output", given)
        return kind.parse(module)

    try:
        with _debug_lines(module.__name__) as passed_over:
            result = run(text)
    except Exception as error:
        reason = traceback.format_exception_only(type(error), error)[-1].strip()
        terminal.say(f"{name}{_where(run, kind.header, text)}")
        print(reason, file=sys.stderr)
        return terminal.FAILED
    for line in passed_over:
        terminal.say(f"{name}: passed over a line: {line}")
    print(as_json(result))
    return 0


@contextmanager
def _debug_lines(logger_name: str) -> Iterator[list[str]]:
    """What is logged meanwhile, at any level."""
    lines: list[str] = []

    class Collector(logging.Handler):
        def emit(self, record: logging.LogRecord) -> None:
            lines.append(record.getMessage())

    logger, collector = logging.getLogger(logger_name), Collector()
    level = logger.level
    logger.setLevel(logging.DEBUG)
    logger.addHandler(collector)
    try:
        yield lines
    finally:
        logger.removeHandler(collector)
        logger.setLevel(level)


def _where(run: Callable[[bytes], Any], header: bytes, text: bytes) -> str:
    """What the parser's exception does not tell: the line that it stumbled over.

    Found with the parser itself. It takes the text up to some line and refuses it with one more:
    that one is the line. It takes no beginning at all: the header is the matter.
    """
    lines = text.split(b"\n")

    def takes(count: int) -> bool:
        try:
            run(b"\n".join(lines[:count]))
        except Exception:
            return False
        return True

    good = next((count for count in range(1, len(lines)) if takes(count)), None)
    if good is None:
        found = [number for number, line in enumerate(lines, 1) if line.strip().startswith(header)]
        if not found:
            return f': no line begins with "{header.decode()}"'
        return f":{found[0]}: the parser refuses the header that begins here"
    bad = len(lines)
    while bad - good > 1:
        middle = (good + bad) // 2
        good, bad = (middle, bad) if takes(middle) else (good, middle)
    shown = lines[bad - 1].decode("utf-8", "backslashreplace").strip()
    return f":{bad}: the parser refuses this line: {shown[:100]!r}"
