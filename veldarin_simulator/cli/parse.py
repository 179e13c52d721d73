"""`python -m veldarin_simulator parse`: parse a captured CLI text and print the result as JSON.

For people who debug a device's output.
"""

from __future__ import annotations

import sys
import traceback
from pathlib import Path

from veldarin_simulator.cli import common
from veldarin_simulator.cli.call import as_json
from veldarin_simulator.parse_capture import KINDS, Outcome, parsed

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


def main(texts: list[str]) -> int:
    """Runs the tool; returns its exit status."""
    options = _parser().parse_args(texts)
    name = "standard input" if options.file == "-" else options.file
    text = _content(options.file)
    with common.open_appliance(live=False) as simulator:
        return _told(parsed(simulator, KINDS[options.kind], text), name)


def _parser() -> common.Parser:
    parser = common.Parser("parse", description=_DESCRIPTION, epilog=_EXIT_STATUS)
    parser.add_argument("kind", choices=tuple(KINDS), help="which parser")
    parser.add_argument("file", metavar="FILE", help="the captured text; - for standard input")
    return parser


def _content(file: str) -> bytes:
    if file == "-":
        return sys.stdin.buffer.read()
    try:
        return Path(file).read_bytes()
    except OSError as error:
        common.stop(f"{file}: {(error.strerror or str(error)).lower()}", common.USAGE)


def _told(outcome: Outcome, name: str) -> int:
    if outcome.end is not None:
        common.say(f"{name}: the text ends at its first NUL byte, offset {outcome.end}")
    if outcome.error is not None:
        place = name if outcome.line is None else f"{name}:{outcome.line}"
        common.say(f"{place}: {outcome.problem}")
        reason = traceback.format_exception_only(type(outcome.error), outcome.error)[-1].strip()
        print(reason, file=sys.stderr)
        return common.FAILED
    for line in outcome.passed_over:
        common.say(f"{name}: passed over a line: {line}")
    print(as_json(outcome.result))
    return 0
