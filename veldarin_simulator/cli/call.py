"""`python -m veldarin_simulator call`: call one function and print its result as JSON."""

from __future__ import annotations

import difflib
import json
import sys
import traceback
from pathlib import Path
from typing import Any

from veldarin_simulator import stub
from veldarin_simulator.cli import common

_DESCRIPTION = """\
Calls one function of veldarin.modules.modules_util against this machine's state
and prints what it returned as JSON (bytes as text). Where the answer came from,
live or recorded, is said on standard error.

Arguments are taken by the declared type of their parameter:
  None or null     None, for every parameter
  bytes            the text's own bytes
  str              the text
  anything else    JSON if the text is JSON (7, true, "7", [1]), else the text
  NAME=VALUE       a keyword argument, where a parameter of that name takes one
Write -- before arguments that begin with a dash.
"""
_EXIT_STATUS = "exit status: 0 returned, 1 raised (its traceback is printed), 2 usage"


def main(texts: list[str]) -> int:
    """Runs the tool; returns its exit status."""
    known = common.known_functions()
    parser = _parser(known)
    options = parser.parse_intermixed_args(texts)
    if not options.words:
        parser.error("which function?")
    name, *arguments = options.words
    if name not in known:
        common.stop(_unknown(name, known), common.USAGE)
    function = known[name]
    positional, named = function.arguments(arguments)
    try:
        result = _called(options.scenario, function.name, positional, named)
    except Exception as error:
        _print_raised(error)
        return common.FAILED
    print(as_json(result))
    return 0


def as_json(value: Any) -> str:
    """The value as indented JSON; bytes as UTF-8 text, what is none as backslash escapes."""
    return json.dumps(value, indent=2, ensure_ascii=False, default=_as_text)


def _parser(known: dict[str, stub.Function]) -> common.Parser:
    listed = "\n  ".join(function.declaration for function in known.values())
    parser = common.Parser(
        "call",
        usage=f"{common.PROGRAM} call [-h] [--scenario DIR] FUNCTION [ARG ...]",
        description=_DESCRIPTION,
        epilog=f"functions:\n  {listed}\n\n{_EXIT_STATUS}",
    )
    parser.add_argument(
        "words", metavar="FUNCTION [ARG ...]", nargs="*", help="see above and below"
    )
    common.add_scenario(parser)
    return parser


def _unknown(name: str, known: dict[str, stub.Function]) -> str:
    near = difflib.get_close_matches(name, known, n=1)
    hint = f"did you mean {near[0]}?" if near else f"see {common.PROGRAM} call --help"
    return f"the module has no function {name}: {hint}"


def _called(scenario: Path | None, name: str, positional: list[Any], named: dict[str, Any]) -> Any:
    with common.open_appliance(scenario) as simulator:
        if name == "get_token":
            common.keep_secret(simulator)
        function = getattr(simulator.module, name)
        simulator.clear_calls()
        try:
            return function(*positional, **named)
        finally:
            for service, source in {
                call.service: call.source for call in simulator.call_log
            }.items():
                if source != "none":
                    common.say(f"{service}: {source}")


def _print_raised(error: BaseException) -> None:
    """The traceback from the module on; this tool's own frames explain nothing."""
    entries = error.__traceback__
    while entries is not None and entries.tb_frame.f_code.co_filename == __file__:
        entries = entries.tb_next
    sys.stdout.flush()
    traceback.print_exception(type(error), error, entries)


def _as_text(value: object) -> object:
    if isinstance(value, bytes):
        return value.decode("utf-8", "backslashreplace")
    raise TypeError(f"{type(value).__name__} has no JSON form")
