"""`veldarin-simulator` and `python -m veldarin_simulator`: the command-line tools in cli/."""

from __future__ import annotations

import argparse
import errno
import importlib
import os
import re
import sys
from importlib import metadata
from typing import Any, NoReturn

from veldarin_simulator import MissingPackageError, native_library
from veldarin_simulator.cli import common
from veldarin_simulator.similar import did_you_mean

TOOLS = {
    # command: module in cli/, purpose
    "demo": ("demo", "call all thirty functions on this machine"),
    "list": ("list_functions", "list the functions, or those whose name contains a text"),
    "call": ("call", "call one function and print its result as JSON"),
    "parse": ("parse", "parse a captured command-line text and print the result as JSON"),
    "record": ("record", "record this machine's replies as a scenario"),
    "console": ("serve", "serve a web page that calls functions and shows the native calls"),
    "completion": ("completion", "print a script that completes these commands in a shell"),
}

# Errors of writing to a closed pipe, a full device, a terminal that has hung up.
_OUTPUT_ERRORS = {errno.EPIPE, errno.ENOSPC, errno.EIO, errno.EBADF, errno.EFBIG}


def load_tool(name: str) -> Any:
    """Return the module of a tool, with `create_parser` and `main`."""
    return importlib.import_module(f"veldarin_simulator.cli.{TOOLS[name][0]}")


class _Version(argparse.Action):
    def __call__(self, *_: object) -> NoReturn:
        print(f"veldarin-simulator {_version()}")
        sys.exit(0)


def _version() -> str:
    """Return the version of the installed package, or of the checkout."""
    try:
        return metadata.version("veldarin-simulator")
    except metadata.PackageNotFoundError:
        source = (native_library.ROOT / "CMakeLists.txt").read_text()
        return str(re.findall(r"^project\(\w+ VERSION ([\d.]+)", source, re.MULTILINE)[0])


def create_parser() -> common.Parser:
    """Return the parser of the command line up to the tool's arguments."""
    listed = "\n  ".join(f"{name:<10}  {purpose}" for name, (_, purpose) in TOOLS.items())
    parser = common.Parser(
        description="Run veldarin.modules.modules_util on a workstation.",
        epilog=f"tools:\n  {listed}\n\nFor the options of a tool: {common.PROGRAM} TOOL --help",
    )
    parser.add_argument("--version", action=_Version, nargs=0, help="print the version and exit")
    parser.add_argument("tool", metavar="TOOL", nargs="?", help="one of those below")
    parser.add_argument("arguments", metavar="...", nargs="...", help="arguments of the tool")
    return parser


def main(arguments: list[str] | None = None) -> int:
    """Run a tool and return its exit status.

    Args:
        arguments: The command line, default that of the process.
    """
    if sys.stdout is None:
        common.info("standard output is closed")
        return common.EXIT_FAILURE
    # The terminal's encoding may lack a character of a value.
    sys.stdout.reconfigure(errors="backslashreplace")  # type: ignore[union-attr]
    try:
        try:
            status = _run(arguments)
        except SystemExit as end:
            status = end.code if isinstance(end.code, int) else 0
        sys.stdout.flush()
    except KeyboardInterrupt:
        return 130
    except MissingPackageError as error:
        common.info(str(error))
        return common.EXIT_FAILURE
    except OSError as error:
        if error.errno not in _OUTPUT_ERRORS:
            raise
        common.discard(sys.stdout)
        common.info(f"standard output: {os.strerror(error.errno).lower()}")
        return common.EXIT_FAILURE
    return status


def _run(arguments: list[str] | None) -> int:
    parser = create_parser()
    options = parser.parse_args(arguments)
    if options.tool not in TOOLS:
        hint = did_you_mean(options.tool or "", TOOLS) or f"expected a tool: {', '.join(TOOLS)}"
        parser.error(f"{options.tool} is not a tool: {hint}" if options.tool else hint)
    status: int = load_tool(options.tool).main(options.arguments)
    return status


if __name__ == "__main__":
    sys.exit(main())
