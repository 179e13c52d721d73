"""Conventions of the command-line tools: messages, exit statuses, opening a simulator."""

from __future__ import annotations

import argparse
import os
import sys
from pathlib import Path
from typing import NoReturn, TextIO

from veldarin_simulator import Scenario, ScenarioError, Simulator, state_dir, stub

_SCRIPT = "veldarin-simulator"
PROGRAM = _SCRIPT if Path(sys.argv[0]).name == _SCRIPT else "python -m veldarin_simulator"
EXIT_FAILURE = 1
EXIT_USAGE = 2


class Parser(argparse.ArgumentParser):
    """An argument parser whose usage errors are one line."""

    def __init__(self, tool: str = "", **settings: object) -> None:
        super().__init__(
            prog=f"{PROGRAM} {tool}".rstrip(),
            formatter_class=argparse.RawDescriptionHelpFormatter,
            **settings,  # type: ignore[arg-type]
        )

    def error(self, message: str) -> NoReturn:
        """Exit with a message and the command for help."""
        fail(f"{message} (see {self.prog} --help)", EXIT_USAGE)


def add_scenario(parser: argparse.ArgumentParser) -> None:
    """Add the option for a scenario directory."""
    parser.add_argument(
        "--scenario",
        type=Path,
        metavar="DIR",
        help="recorded replies that override this machine's own (see scenarios/README.md)",
    )


def write_error(text: str) -> None:
    """Write a text to standard error; a closed or full one is ignored."""
    if sys.stderr is not None:
        try:
            sys.stderr.write(text)
            sys.stderr.flush()
        except OSError:
            discard(sys.stderr)


def discard(stream: TextIO) -> None:
    """Make a stream discard its texts, also those that the interpreter flushes when it exits."""
    os.dup2(os.open(os.devnull, os.O_WRONLY), stream.fileno())


def info(message: str) -> None:
    """Print a line to standard error."""
    write_error(f"veldarin_simulator: {message}\n")


def fail(message: str, status: int) -> NoReturn:
    """Print a message and exit."""
    info(message)
    sys.exit(status)


def open_simulator(scenario: Path | None = None, live: bool = True) -> Simulator:
    """Open a simulator with the scenario in a directory, or exit with a message."""
    try:
        return Simulator(None if scenario is None else Scenario.load(scenario), live)
    except ScenarioError as error:
        fail(str(error), EXIT_USAGE)
    except (ImportError, OSError, RuntimeError) as error:
        fail(str(error), EXIT_FAILURE)


def load_functions() -> dict[str, stub.Function]:
    """Return the module's functions by name, or exit with a message."""
    try:
        return stub.functions()
    except (OSError, SyntaxError, ValueError) as error:
        fail(str(error), EXIT_FAILURE)


def persist_secret(simulator: Simulator) -> None:
    """Store the preference secret in the state directory, so that it outlives the process."""
    try:
        simulator.secret_path = state_dir.directory() / "preference-cookie-secret"
    except OSError as error:
        info(f"cannot store the preference secret: {error}")
