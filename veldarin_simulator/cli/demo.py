"""`python -m veldarin_simulator demo`: call all thirty functions on this machine, a line for each.

What a newcomer sees first: that the module is built and works, what each function is called with
and gives back, and which of it is live and which recorded.
"""

from __future__ import annotations

import socket
import sys
from collections import Counter
from collections.abc import Callable
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import Any, NamedTuple

from rich.console import Console
from rich.text import Text

from veldarin_simulator import Simulator
from veldarin_simulator.cli import common

_DESCRIPTION = """\
Calls every function of veldarin.modules.modules_util once, with sensible
arguments, and prints a line for each: number, call, where the answer came from,
value (shortened). "live" is this machine's own state, "recorded" a scenario's;
"no call" marks the functions that ask no native service.
"""
_EXIT_STATUS = "exit status: 0 all returned, 1 some raised, 2 usage"

_WIDTH_WITHOUT_TERMINAL = 140
_SOURCE_WIDTH = len("recorded")
_LONGEST_VALUE = 400  # of its text, before the line's own width cuts it

_NO_CALL = "no call"
_RAISED = "raised"
_STYLES = {"live": "green", "recorded": "yellow", _RAISED: "bold red"}

# Where a Linux distribution keeps a certificate of its own, or those that it trusts.
_CERTIFICATES = (
    "/etc/ssl/certs/ssl-cert-snakeoil.pem",
    "/etc/ssl/certs/ca-certificates.crt",
    "/etc/pki/tls/certs/ca-bundle.crt",
    "/etc/ssl/cert.pem",
)

# Reserved for documentation: routed like any address abroad, and nobody's.
_ABROAD = "198.51.100.1"


class _Tour:
    """What the calls need of the machine and of each other."""

    def __init__(self, simulator: Simulator, folder: Path) -> None:
        self.simulator = simulator
        self.results: dict[str, Any] = {}
        self._folder = folder

    def certificate(self) -> bytes:
        """A certificate of this machine, or one made for the tour."""
        for kept in _CERTIFICATES:
            if Path(kept).is_file():
                return kept.encode()
        from veldarin_simulator.cli.self_signed import (
            certificate_in_pem,  # most machines do without
        )

        path = self._folder / "certificate.pem"
        path.write_bytes(certificate_in_pem())
        return str(path).encode()

    def port(self) -> str:
        """The first interface that the link monitor knows."""
        monitored = self.simulator.module.list_system_link_monitor_status()
        try:
            return str(monitored[0]["name"])
        except (LookupError, TypeError):
            return "lo"  # a scenario may answer anything

    def destination(self) -> str:
        """An address abroad if this machine has a route there, else its own loopback."""
        text = self.simulator.module.get_cli_command_output(
            f"get router info routing-table detail {_ABROAD}"
        )
        return _ABROAD if text.startswith("Routing") else "127.0.0.1"


class _Screen(Console):
    """A console that leaves a reader who has seen enough to the tools' own handling."""

    def on_broken_pipe(self) -> None:
        """Raises what rich would end the process for."""
        raise BrokenPipeError


class _Visit(NamedTuple):
    """One function called: the call as text, where its answer came from, the value as text."""

    call: str
    source: str
    value: str

    def line(self, number: int, call_width: int) -> Text:
        """Its line of the tour; the value is last, so that the screen may cut it."""
        call = Text(self.call)
        call.truncate(call_width, overflow="ellipsis", pad=True)
        source = Text(f"  {self.source:<{_SOURCE_WIDTH}}  ", _STYLES.get(self.source, "dim"))
        value = Text(self.value.replace("\n", " "))
        return Text.assemble((f"{number:>2}  ", "dim"), call, source, value)


# The arguments of the functions that take some.
_ARGUMENTS: dict[str, Callable[[_Tour], tuple[Any, ...]]] = {
    "aps_unsigned_int_hash": lambda tour: (tour.simulator.serial_number,),
    "get_cookie_name": lambda _: (True,),
    "encrypt_cookie": lambda _: (b"user=admin; level=7",),
    "decrypt_cookie": lambda tour: (tour.results.get("encrypt_cookie"),),
    "check_cert_expiration": lambda tour: (tour.certificate(),),
    "switch_acl_ingress_counter": lambda _: (1,),
    "switch_acl_egress_counter": lambda _: (1,),
    "switch_acl_prelookup_counter": lambda _: (1,),
    "list_switch_stp_state": lambda _: (0,),
    "list_system_interface_physical": lambda tour: (tour.port(),),
    "list_switch_port_statistics": lambda tour: (tour.port(),),
    "list_switch_lldp_state": lambda _: ("port1",),
    "list_switch_trunk_state": lambda _: ("uplink",),
    "list_switch_mclag_list": lambda _: ("uplink",),
    "list_switch_igmp_snooping_group": lambda tour: (tour.port(),),
    "get_cli_command_output": lambda _: ("get system arp",),
    "get_bfd_neighbor": lambda _: ("get router info bfd neighbor",),
    "capture_sniffer_profile": lambda _: ("lan-trace", "Running"),
    "get_routing_table_result": lambda tour: (tour.destination(),),
}


def main(texts: list[str]) -> int:
    """Runs the tool; returns its exit status."""
    parser = common.Parser("demo", description=_DESCRIPTION, epilog=_EXIT_STATUS)
    common.add_scenario(parser)
    options = parser.parse_args(texts)
    with common.open_appliance(options.scenario) as simulator, _folder() as folder:
        common.keep_secret(simulator)
        return _walk(_Tour(simulator, Path(folder)))


def _folder() -> TemporaryDirectory[str]:
    # Said in the path, so that the tour's line shows it.
    return TemporaryDirectory(prefix="throwaway-")


def _walk(tour: _Tour) -> int:
    visits = [_visit(tour, name) for name in common.known_functions()]
    seen = Counter(visit.source for visit in visits)
    # Without a terminal, wide enough for what a log is read on; colours are the terminal's only.
    width = None if sys.stdout.isatty() else _WIDTH_WITHOUT_TERMINAL
    screen = _Screen(width=width, highlight=False)
    call_width = min(max(len(visit.call) for visit in visits), screen.width * 3 // 8)
    screen.print(f"veldarin.modules.modules_util on {socket.gethostname()}", style="bold")
    for number, visit in enumerate(visits, 1):
        screen.print(visit.line(number, call_width), no_wrap=True, overflow="ellipsis", crop=True)
    counts = ", ".join(f"{count} {source}" for source, count in seen.most_common())
    screen.print(f"{len(visits)} functions: {counts}", style="bold")
    return common.FAILED if seen[_RAISED] else 0


def _visit(tour: _Tour, name: str) -> _Visit:
    simulator = tour.simulator
    call = f"{name}(…)"
    try:
        arguments = _ARGUMENTS[name](tour) if name in _ARGUMENTS else ()
        call = f"{name}({', '.join(map(repr, arguments))})"
        simulator.clear_calls()
        result = getattr(simulator.module, name)(*arguments)
        simulator.raise_errors()
    except Exception as error:
        return _Visit(call, _RAISED, f"{type(error).__name__}: {error}")
    tour.results[name] = result
    if name == "get_token":
        # Its secret is a file of this machine, asked of no native service, and nobody's to read.
        shown = f"{result[:8]!r}… ({len(result)} characters, in {simulator.secret_path})"
        return _Visit(call, "live", shown)
    sources = {entry.source for entry in simulator.call_log} - {"none"}
    return _Visit(call, "+".join(sorted(sources)) or _NO_CALL, repr(result)[:_LONGEST_VALUE])
