"""`python -m veldarin_simulator`: the command-line tools. Each is a file in cli/."""

from __future__ import annotations

import argparse
import importlib
import os
import sys

from veldarin_simulator.cli import common

_TOOLS = {
    "demo": "all thirty functions against this machine's state, a line for each",
    "call": "one function, its result as JSON",
    "parse": "a captured command-line text through the module's parser, as JSON",
    "console": "a page that calls every function, and shows what crosses the native boundary",
}

_MODULES = {tool: f"veldarin_simulator.cli.{tool}" for tool in _TOOLS}
_MODULES["console"] = "veldarin_simulator.cli.serve"


def main(texts: list[str]) -> int:
    """Runs the tool that is named; returns its exit status."""
    listed = "\n  ".join(f"{name:<7} {purpose}" for name, purpose in _TOOLS.items())
    parser = common.Parser(
        description="The stand-in appliance: veldarin.modules.modules_util on a workstation.",
        epilog=f"tools:\n  {listed}\n\n{common.PROGRAM} TOOL --help tells more.",
    )
    parser.add_argument("tool", metavar="TOOL", nargs="?", help="see below")
    parser.add_argument("arguments", metavar="...", nargs=argparse.REMAINDER, help="the tool's own")
    options = parser.parse_args(texts)
    if options.tool not in _TOOLS:
        parser.error(f"which tool: {', '.join(_TOOLS)}?")
    # A value may hold what the terminal's encoding has no character for.
    sys.stdout.reconfigure(errors="backslashreplace")  # type: ignore[union-attr]
    try:
        status: int = importlib.import_module(_MODULES[options.tool]).main(options.arguments)
        sys.stdout.flush()
    except BrokenPipeError:
        # The reader has seen enough. The interpreter flushes once more at exit: into nothing.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 0
    except KeyboardInterrupt:
        return 130
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
