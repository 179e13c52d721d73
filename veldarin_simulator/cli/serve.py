"""`python -m veldarin_simulator console`: serve the console on this machine."""

from __future__ import annotations

import argparse
import signal
import sys
from ipaddress import ip_address
from pathlib import Path
from typing import NoReturn

from veldarin_simulator import state_dir
from veldarin_simulator.cli import common
from veldarin_simulator.console.app import application
from veldarin_simulator.console.errors import Problem
from veldarin_simulator.console.scenario_store import Shelf
from veldarin_simulator.console.server import server
from veldarin_simulator.console.session import Bench
from veldarin_simulator.scenario import Scenario, ScenarioError

_DESCRIPTION = """\
Serves a page on which every function of veldarin.modules.modules_util can be
called, with what it asks of the native services, and the same as an HTTP
interface (docs/console.md). It ends with Ctrl-C.

It asks for no password. So it listens on this machine's loopback address; another
one is taken only together with --i-know-this-is-not-protected.
"""
_EXIT_STATUS = "exit status: 0 ended, 1 it cannot listen or nothing is built, 2 usage"
_PORT = 8430
_LOOPBACK = "127.0.0.1"
_IN_WORDS = "--i-know-this-is-not-protected"


def main(texts: list[str]) -> int:
    """Runs the tool; returns its exit status."""
    options = _options(texts)
    signal.signal(signal.SIGTERM, _ended)
    with _bench(options.scenario) as bench:
        served = application(bench, beyond_loopback=not _is_loopback(options.host))
        try:
            listening = server(served, options.host, options.port)
        except OSError as error:
            reason = (error.strerror or str(error)).lower()
            common.fail(
                f"{options.host} port {options.port}: {reason} (choose another with --port)",
                common.EXIT_FAILURE,
            )
        shown = f"[{options.host}]" if ":" in options.host else options.host
        print(f"console: http://{shown}:{listening.effective_port}/", flush=True)
        listening.run()
        listening.close()
    return 0


def _options(texts: list[str]) -> argparse.Namespace:
    parser = common.Parser("console", description=_DESCRIPTION, epilog=_EXIT_STATUS)
    parser.add_argument(
        "--port", type=_port, default=_PORT, help=f"where it listens, {_PORT} by default; 0: any"
    )
    common.add_scenario(parser)
    parser.add_argument(
        "--host", default=_LOOPBACK, metavar="ADDRESS", help="another address to listen on"
    )
    parser.add_argument(
        _IN_WORDS, dest="in_words", action="store_true", help="everybody may reach it and call"
    )
    options = parser.parse_args(texts)
    try:
        ip_address(options.host)
    except ValueError:
        parser.error(f"--host is an IP address, not {options.host}")
    if not _is_loopback(options.host) and not options.in_words:
        parser.error(f"{options.host} is open to others and there is no password: add {_IN_WORDS}")
    return options


def _port(text: str) -> int:
    if not (text.isascii() and text.isdigit() and int(text) <= 65535):
        raise argparse.ArgumentTypeError(f"a port is a number up to 65535, not {text}")
    return int(text)


def _is_loopback(host: str) -> bool:
    return ip_address(host).is_loopback


def _bench(scenario: Path | None) -> Bench:
    """An open bench, or the end of the process with one line."""
    try:
        if scenario is not None:
            Scenario.load(scenario)  # as the other tools say what is wrong with it
            scenario = scenario.resolve()
        return Bench(Shelf(_shelf(), scenario))
    except (Problem, ScenarioError) as error:
        common.fail(str(error), common.EXIT_USAGE)
    except (OSError, RuntimeError, SyntaxError, ValueError) as error:
        common.fail(str(error), common.EXIT_FAILURE)


def _shelf() -> Path:
    return state_dir.directory() / "scenarios"


def _ended(*_: object) -> NoReturn:
    # As an interrupt does: what is open is closed.
    sys.exit(0)
