"""`python -m veldarin_simulator`: the command-line tools. Each is a module in cli/."""

from __future__ import annotations

import importlib
import os
import sys

from veldarin_simulator import MissingPackageError
from veldarin_simulator.cli import common

_TOOLS = {
    # command: module in cli/, purpose
    "demo": ("demo", "call all thirty functions on this machine"),
    "call": ("call", "call one function and print its result as JSON"),
    "parse": ("parse", "parse a captured command-line text and print the result as JSON"),
    "console": ("serve", "serve a web page that calls functions and shows the native calls"),
}


def main(arguments: list[str]) -> int:
    """Run a tool and return its exit status."""
    listed = "\n  ".join(f"{name:<7}  {purpose}" for name, (_, purpose) in _TOOLS.items())
    parser = common.Parser(
        description="Run veldarin.modules.modules_util on a workstation.",
        epilog=f"tools:\n  {listed}\n\nFor the options of a tool: {common.PROGRAM} TOOL --help",
    )
    parser.add_argument("tool", metavar="TOOL", nargs="?", help="one of those below")
    parser.add_argument("arguments", metavar="...", nargs="...", help="arguments of the tool")
    options = parser.parse_args(arguments)
    if options.tool not in _TOOLS:
        parser.error(f"expected a tool: {', '.join(_TOOLS)}")
    # The terminal's encoding may lack a character of a value.
    sys.stdout.reconfigure(errors="backslashreplace")  # type: ignore[union-attr]
    try:
        tool = importlib.import_module(f"veldarin_simulator.cli.{_TOOLS[options.tool][0]}")
        status: int = tool.main(options.arguments)
        sys.stdout.flush()
    except MissingPackageError as error:
        common.fail(str(error), common.EXIT_FAILURE)
    except BrokenPipeError:
        # The reader has closed the pipe; the interpreter's flush at exit must not fail again.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 0
    except KeyboardInterrupt:
        return 130
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
