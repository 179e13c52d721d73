"""`veldarin-simulator call`: call one function and print its result as JSON."""

from __future__ import annotations

import json
import sys
import traceback
from pathlib import Path
from typing import Any

from veldarin_simulator import module_log
from veldarin_simulator.cli import common
from veldarin_simulator.similar import did_you_mean
from veldarin_simulator.stub import ArgumentError, Function

_DESCRIPTION = """\
Call a function of veldarin.modules.modules_util and print its result as JSON
(bytes as text). Print the source of each reply, live or recorded, and what the
module logs to standard error.

The declared type of a parameter determines its argument:
  None or null     None, for every parameter
  bytes            the bytes of the text
  str              the text
  anything else    JSON if the text is JSON (7, true, "7", [1]), else the text
  NAME=VALUE       a keyword argument, if a parameter of that name accepts one
After -- every argument is a value: write it before values that begin with a dash
or look like NAME=VALUE. For one function: FUNCTION --help
"""
_EXIT_STATUS = "exit status: 0 returned, 1 raised (with a traceback), 2 usage"


def create_parser() -> common.Parser:
    """Return the parser of the tool's arguments."""
    parser = common.Parser(
        "call",
        usage=f"{common.PROGRAM} call [-h] [--scenario DIR] FUNCTION [ARG ...]",
        description=_DESCRIPTION,
        add_help=False,
    )
    parser.add_argument(
        "words", metavar="FUNCTION [ARG ...]", nargs="*", help="a function of those below"
    )
    parser.add_argument(
        "-h", "--help", action="store_true", help="show this text, or that of FUNCTION, and exit"
    )
    common.add_scenario(parser)
    return parser


def main(arguments: list[str]) -> int:
    """Run the tool and return its exit status."""
    functions = common.load_functions()
    parser = create_parser()
    end = arguments.index("--") if "--" in arguments else len(arguments)
    options = parser.parse_intermixed_args(arguments[:end])
    words, values = options.words, arguments[end + 1 :]
    if not words:
        words, values = values[:1], values[1:]
    if not words:
        if not options.help:
            parser.error("expected a function")
        listed = "\n  ".join(function.declaration for function in functions.values())
        parser.epilog = f"functions:\n  {listed}\n\n{_EXIT_STATUS}"
        parser.print_help()
        return 0
    name, *texts = words
    if name not in functions:
        hint = did_you_mean(name, functions) or f"see {common.PROGRAM} call --help"
        common.fail(f"the module has no function {name}: {hint}", common.EXIT_USAGE)
    if options.help:
        print(_describe(functions[name]))
        return 0
    try:
        positional, keywords = functions[name].arguments(texts, values)
    except ArgumentError as error:
        common.fail(f"{name}: {error}", common.EXIT_USAGE)
    try:
        result = _call(options.scenario, name, positional, keywords)
    except Exception as error:
        entries = error.__traceback__
        while entries is not None and entries.tb_frame.f_code.co_filename == __file__:
            entries = entries.tb_next  # the frames of this tool
        sys.stdout.flush()
        common.write_error("".join(traceback.format_exception(type(error), error, entries)))
        return common.EXIT_FAILURE
    print(to_json(result))
    return 0


def _describe(function: Function) -> str:
    usage = " ".join(
        [f"usage: {common.PROGRAM} call [--scenario DIR] {function.name}"]
        + [parameter.usage for parameter in function.parameters]
    )
    return f"{usage}\n\n{function.declaration}\n\n{function.docstring}"


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
            with module_log.capture() as records:
                return function(*positional, **keywords)
        finally:
            for record in records:
                common.info(f"{record.logger} logged {record.level}: {record.message}")
            sources = {call.service: call.source for call in simulator.call_log}
            for service, source in sources.items():
                if source != "none":
                    common.info(f"{service}: {source}")
