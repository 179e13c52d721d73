"""`veldarin-simulator parse`: parse a captured command-line text."""

from __future__ import annotations

import sys
import traceback
from pathlib import Path

from veldarin_simulator import parse_capture
from veldarin_simulator.cli import common
from veldarin_simulator.cli.call import to_json

_DESCRIPTION = """\
Run a captured command-line text through a parser of
veldarin.modules.modules_util and print the result as JSON.

  arp      the output of "get system arp"
  routing  the output of "get router info routing-table detail ADDRESS"
  bfd      the output of "get router info bfd neighbor" (or info6)

If the parser rejects the text, print the offending line. The BFD parser rejects
nothing; print the lines that it skips to standard error.
"""
_EXIT_STATUS = "exit status: 0 parsed, 1 rejected by the parser, 2 usage"


def create_parser() -> common.Parser:
    """Return the parser of the tool's arguments."""
    parser = common.Parser("parse", description=_DESCRIPTION, epilog=_EXIT_STATUS)
    parser.add_argument("kind", choices=tuple(parse_capture.PARSERS), help="the parser")
    parser.add_argument("file", metavar="FILE", help="the captured text; - for standard input")
    return parser


def main(arguments: list[str]) -> int:
    """Run the tool and return its exit status."""
    options = create_parser().parse_args(arguments)
    text = _content(options.file)
    with common.open_simulator(live=False) as simulator:
        parsed = parse_capture.parse(simulator, parse_capture.PARSERS[options.kind], text)
    return _report(parsed, "standard input" if options.file == "-" else options.file)


def _content(file: str) -> bytes:
    if file == "-":
        if sys.stdin is None:
            common.fail("standard input is closed", common.EXIT_USAGE)
        return sys.stdin.buffer.read()
    try:
        return Path(file).read_bytes()
    except OSError as error:
        common.fail(f"{file}: {(error.strerror or str(error)).lower()}", common.EXIT_USAGE)


def _report(parsed: parse_capture.ParseResult, name: str) -> int:
    if parsed.end is not None:
        common.info(f"{name}: the text ends at its first NUL byte, offset {parsed.end}")
    if parsed.error is not None:
        location = name if parsed.line is None else f"{name}:{parsed.line}"
        common.info(f"{location}: {parsed.problem}")
        common.write_error(
            traceback.format_exception_only(type(parsed.error), parsed.error)[-1].strip() + "\n"
        )
        return common.EXIT_FAILURE
    for line in parsed.skipped:
        common.info(f"{name}: skipped a line: {line}")
    print(to_json(parsed.result))
    return 0
