"""How the tools talk: one-line errors, exit statuses, opening the appliance they work on."""

from __future__ import annotations

import argparse
import sys
from pathlib import Path
from typing import NoReturn

from veldarin_simulator import Simulator, state_dir, stub
from veldarin_simulator.scenario import Scenario, ScenarioError

PROGRAM = "python -m veldarin_simulator"
FAILED = 1
USAGE = 2


class Parser(argparse.ArgumentParser):
    """An argument parser whose usage errors are one line."""

    def __init__(self, tool: str = "", **settings: object) -> None:
        super().__init__(
            prog=f"{PROGRAM} {tool}".rstrip(),
            formatter_class=argparse.RawDescriptionHelpFormatter,
            **settings,  # type: ignore[arg-type]
        )

    def error(self, message: str) -> NoReturn:
        """Ends the process with the message and where to read more."""
        say(f"{message} (see {self.prog} --help)")
        sys.exit(USAGE)


def add_scenario(parser: argparse.ArgumentParser) -> None:
    """The option for a directory of recorded answers."""
    parser.add_argument(
        "--scenario",
        type=Path,
        metavar="DIR",
        help="recorded replies that override this machine's own (see scenarios/README.md)",
    )


def say(message: str) -> None:
    """A line for the person, apart from the result."""
    print(f"appliance: {message}", file=sys.stderr)


def stop(message: str, status: int) -> NoReturn:
    """Ends the process with one line."""
    say(message)
    sys.exit(status)


def open_appliance(scenario: Path | None = None, live: bool = True) -> Simulator:
    """An open appliance, or the end of the process with one line: a scenario that cannot be used is
    a usage error, an appliance that is not built a failure."""
    try:
        return Simulator(None if scenario is None else Scenario.load(scenario), live)
    except ScenarioError as error:
        stop(str(error), USAGE)
    except (OSError, RuntimeError) as error:
        stop(str(error), FAILED)


def known_functions() -> dict[str, stub.Function]:
    """The module's functions by name, or the end of the process with one line."""
    try:
        return stub.functions()
    except (OSError, SyntaxError, ValueError) as error:
        stop(str(error), FAILED)


def keep_secret(simulator: Simulator) -> None:
    """Lets the preference secret outlive the process, in the state directory."""
    try:
        simulator.secret_path = state_dir.directory() / "preference-cookie-secret"
    except OSError as error:
        say(f"the preference secret is not kept: {error}")
