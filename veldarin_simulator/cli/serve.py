"""`veldarin-simulator console`: serves the console."""

from __future__ import annotations

import argparse
import logging
import secrets
import signal
import sys
from ipaddress import ip_address
from pathlib import Path
from typing import TYPE_CHECKING

from veldarin_simulator import ScenarioError, state_dir
from veldarin_simulator.cli import common
from veldarin_simulator.extras import explain_missing_package

if TYPE_CHECKING:  # needs the libraries of the extra "console"
    from veldarin_simulator.console.session import Session

_DESCRIPTION = """\
Serve a page and an HTTP interface (docs/console.md) that call every function of
veldarin.modules.modules_util and show its native calls. Stop it with Ctrl-C.

The console has no password. It listens on this machine's loopback address;
another address requires --allow-remote. Then requests must present a token,
which the printed address contains, and are logged to standard error.
"""
_EXIT_STATUS = "exit status: 0 stopped, 1 cannot listen or nothing is built, 2 usage"
_PORT = 8430
_HOST = "127.0.0.1"
_LOCALHOST = "localhost"


def main(texts: list[str]) -> int:
    """Run the console until it is interrupted.

    Args:
        texts: The arguments of the command line.

    Returns:
        The exit status.
    """
    options = _parse_options(texts)
    from veldarin_simulator.console import server
    from veldarin_simulator.console.app import create_application

    # Exit as Ctrl-C does, so that everything is closed.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    remote = not _is_loopback(options.host)
    token = secrets.token_urlsafe(24) if remote else None
    with _open_session(options.scenario) as session:
        application = create_application(session, allow_remote=remote, token=token)
        try:
            listening = server.create(application, options.host, options.port)
        except OSError as error:
            reason = (error.strerror or str(error)).lower()
            message = f"{options.host} port {options.port}: {reason} (choose another with --port)"
            common.fail(message, common.EXIT_FAILURE)
        query = "" if token is None else f"?token={token}"
        for host in _addresses(options.host):
            shown = f"[{host}]" if ":" in host else host
            print(f"console: http://{shown}:{listening.effective_port}/{query}", flush=True)
        if remote:
            _log_access()
            common.info(
                "warning: anyone with this address can make calls, and HTTP encrypts nothing"
            )
        listening.run()
        listening.close()
    return 0


def create_parser() -> common.Parser:
    """Return the parser of the tool's arguments."""
    parser = common.Parser("console", description=_DESCRIPTION, epilog=_EXIT_STATUS)
    parser.add_argument(
        "--port", type=_port, default=_PORT, help=f"listen on this port, default {_PORT}; 0: any"
    )
    common.add_scenario(parser)
    parser.add_argument(
        "--host", default=_HOST, metavar="ADDRESS", help=f"listen on this address, default {_HOST}"
    )
    parser.add_argument(
        "--allow-remote",
        action="store_true",
        help="let anyone who can reach --host make calls",
    )
    return parser


def _parse_options(texts: list[str]) -> argparse.Namespace:
    parser = create_parser()
    options = parser.parse_args(texts)
    try:
        loopback = _is_loopback(options.host)
    except ValueError:
        parser.error(f"--host is an IP address or localhost, not {options.host}")
    if not loopback and not options.allow_remote:
        parser.error(
            f"other machines can reach {options.host} without a password: add --allow-remote"
        )
    return options


def _port(text: str) -> int:
    if not (text.isascii() and text.isdigit() and int(text) <= 65535):
        raise argparse.ArgumentTypeError(f"a port is a number up to 65535, not {text}")
    return int(text)


def _open_session(scenario: Path | None) -> Session:
    """Open a session, or end the process with one line."""
    from veldarin_simulator.console.errors import ApiError
    from veldarin_simulator.console.scenario_store import ScenarioStore
    from veldarin_simulator.console.session import Session

    initial = None if scenario is None else scenario.resolve()
    try:
        return Session(ScenarioStore(state_dir.directory() / "scenarios", initial))
    except ScenarioError as error:
        path = (scenario or Path()) / error.path
        common.fail(
            str(ScenarioError(path, error.problem, error.line, error.column)), common.EXIT_USAGE
        )
    except ApiError as error:
        common.fail(str(error), common.EXIT_USAGE)
    except (OSError, RuntimeError, SyntaxError, ValueError) as error:
        common.fail(str(error), common.EXIT_FAILURE)


def _is_loopback(host: str) -> bool:
    return host == _LOCALHOST or ip_address(host).is_loopback


def _addresses(host: str) -> list[str]:
    """Return the addresses to use: for all addresses, those of this machine's interfaces."""
    if host == _LOCALHOST or not ip_address(host).is_unspecified:
        return [host]
    with explain_missing_package(f"--host {host}"):
        import psutil

    version = ip_address(host).version
    known = [
        address.address
        for addresses in psutil.net_if_addrs().values()
        for address in addresses
        if address.family.name == ("AF_INET" if version == 4 else "AF_INET6")
        and "%" not in address.address  # link-local, which browsers do not accept
    ]
    return sorted(known, key=_is_loopback) or [host]


def _log_access() -> None:
    from veldarin_simulator.console.security import access_log

    handler = logging.StreamHandler()
    handler.setFormatter(logging.Formatter("%(asctime)s %(message)s"))
    access_log.addHandler(handler)
    access_log.setLevel(logging.INFO)
    access_log.propagate = False
