"""`python -m veldarin_simulator call`: call one function and print its result as JSON."""

from __future__ import annotations

import difflib
import json
import sys
import traceback
from pathlib import Path
from typing import Any

from veldarin_simulator.cli import common

_DESCRIPTION = """\
Call a function of veldarin.modules.modules_util and print its result as JSON
(bytes as text). Print the source of each reply, live or recorded, to standard
error.

The declared type of a parameter determines its argument:
  None or null     None, for every parameter
  bytes            the bytes of the text
  str              the text
  anything else    JSON if the text is JSON (7, true, "7", [1]), else the text
  NAME=VALUE       a keyword argument, if a parameter of that name accepts one
Write -- before arguments that begin with a dash.
"""
_EXIT_STATUS = "exit status: 0 returned, 1 raised (with a traceback), 2 usage"


def main(arguments: list[str]) -> int:
    """Run the tool and return its exit status."""
    functions = common.load_functions()
    listed = "\n  ".join(function.declaration for function in functions.values())
    parser = common.Parser(
        "call",
        usage=f"{common.PROGRAM} call [-h] [--scenario DIR] FUNCTION [ARG ...]",
        description=_DESCRIPTION,
        epilog=f"functions:\n  {listed}\n\n{_EXIT_STATUS}",
    )
    parser.add_argument(
        "words", metavar="FUNCTION [ARG ...]", nargs="*", help="a function of those below"
    )
    common.add_scenario(parser)
    options = parser.parse_intermixed_args(arguments)
    if not options.words:
        parser.error("expected a function")
    name, *texts = options.words
    if name not in functions:
        near = difflib.get_close_matches(name, functions, n=1)
        hint = f"did you mean {near[0]}?" if near else f"see {common.PROGRAM} call --help"
        common.fail(f"the module has no function {name}: {hint}", common.EXIT_USAGE)
    try:
        result = _call(options.scenario, name, *functions[name].arguments(texts))
    except Exception as error:
        entries = error.__traceback__
        while entries is not None and entries.tb_frame.f_code.co_filename == __file__:
            entries = entries.tb_next  # the frames of this tool
        sys.stdout.flush()
        traceback.print_exception(type(error), error, entries)
        return common.EXIT_FAILURE
    print(to_json(result))
    return 0


def to_json(value: Any) -> str:
    """Return indented JSON; bytes are UTF-8 text with backslash escapes for what is not."""
    return json.dumps(value, indent=2, ensure_ascii=False, default=_decode)


def _decode(value: object) -> object:
    if isinstance(value, bytes):
        return value.decode("utf-8", "backslashreplace")
    raise TypeError(f"{type(value).__name__} has no JSON form")


def _call(scenario: Path | None, name: str, positional: list[Any], keywords: dict[str, Any]) -> Any:
    with common.open_simulator(scenario) as simulator:
        if name == "get_token":
            common.persist_secret(simulator)
        function = getattr(simulator.module, name)
        simulator.clear_calls()
        try:
            return function(*positional, **keywords)
        finally:
            sources = {call.service: call.source for call in simulator.call_log}
            for service, source in sources.items():
                if source != "none":
                    common.info(f"{service}: {source}")
