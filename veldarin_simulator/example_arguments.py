"""Arguments that fit this machine, for an example call of each function.

The command `demo` makes these calls, and the console fills them into its forms.
"""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path
from typing import Any

from veldarin_simulator.simulator import Simulator
from veldarin_simulator.stub import Function

# Where Linux distributions keep certificates.
_CERTIFICATES = (
    "/etc/ssl/certs/ssl-cert-snakeoil.pem",
    "/etc/ssl/certs/ca-certificates.crt",
    "/etc/pki/tls/certs/ca-bundle.crt",
    "/etc/ssl/cert.pem",
)
_REMOTE = "198.51.100.1"  # reserved for documentation
_PLAIN_COOKIE = b"user=admin"


def example_call(simulator: Simulator, function: Function) -> tuple[list[Any], dict[str, Any]]:
    """Return positional and keyword arguments: those of the stub's example if none fit better.

    Raises:
        Exception: Whatever a function raises that finds out about this machine.
    """
    find = _ARGUMENTS.get(function.name)
    argument = None if find is None else find(simulator)
    return function.example_call() if argument is None else ([argument], {})


def _certificate(_: Simulator) -> bytes | None:
    return next((path.encode() for path in _CERTIFICATES if Path(path).is_file()), None)


def _port(simulator: Simulator) -> str:
    links = simulator.module.list_system_link_monitor_status()
    try:
        return str(links[0]["name"])
    except (LookupError, TypeError):
        return "lo"  # a scenario may have any reply


def _destination(simulator: Simulator) -> str:
    command = f"get router info routing-table detail {_REMOTE}"
    text = simulator.module.get_cli_command_output(command)
    return _REMOTE if text.startswith("Routing") else "127.0.0.1"


_ARGUMENTS: dict[str, Callable[[Simulator], Any]] = {
    "aps_unsigned_int_hash": lambda simulator: simulator.serial_number,
    "decrypt_cookie": lambda simulator: simulator.module.encrypt_cookie(_PLAIN_COOKIE),
    "check_cert_expiration": _certificate,
    "list_system_interface_physical": _port,
    "list_switch_port_statistics": _port,
    "list_switch_igmp_snooping_group": _port,
    "get_bfd_neighbor": lambda _: "get router info bfd neighbor",
    "get_routing_table_result": _destination,
}
