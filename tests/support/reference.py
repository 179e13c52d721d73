"""Reference model of the parsers, in plain Python: the oracle of the differential tests.

It has one statement a line, uses the string operations that the module reproduces, and has the
module's global names, so that a test can rebind a name in both and compare. `run` replaces the
native command runner.
"""

from __future__ import annotations

import copy
import logging
from typing import Any, Callable

_logger: Any = logging.getLogger(__name__)
_CHARSET: Any = "utf-8"
run: Callable[[bytes], bytes | None] = lambda command: b""  # noqa: E731


class CFunctionError(Exception):
    """A native call that failed."""


def text_(value: Any, encoding: str = "latin-1") -> Any:
    """Text of bytes; anything else unchanged."""
    return value.decode(encoding) if isinstance(value, bytes) else value


def bytes_(value: Any, encoding: str = "latin-1") -> Any:
    """Bytes of text; anything else unchanged."""
    return value.encode(encoding) if isinstance(value, str) else value


def _check_text(name: str, value: Any) -> None:
    if value is not None and type(value) is not str:
        raise TypeError(
            f"Argument '{name}' has incorrect type (expected str, got {type(value).__name__})"
        )


def get_cli_command_output(cmd_s: Any) -> Any:
    """Return the output of a command without pager prompts."""
    _check_text("cmd_s", cmd_s)
    encoded = bytes_(cmd_s, _CHARSET)
    if not isinstance(encoded, (bytes, bytearray)):
        raise TypeError(f"expected bytes, {type(encoded).__name__} found")
    cmd = bytes(encoded).split(b"\0")[0][:127]
    output = run(cmd)
    if output is None:
        raise CFunctionError("get_cli_command_output's result is null.")
    output = output.split(b"\0")[0]
    result = text_(output, _CHARSET)
    return result.replace("--More--", "")


def get_bfd_neighbor(cmd: Any, list_bfd: Any = {}) -> Any:  # noqa: B006 - shared on purpose
    """BFD sessions of a command's output, merged into `list_bfd`."""
    result = text_(get_cli_command_output(cmd), _CHARSET)
    if "peer" not in result:
        return list_bfd
    if "objname" not in result:
        result = "\n" + result
    result = result.split("\n")
    i = 0
    tmp: dict[str, Any] = {}
    name = None
    size = len(result)
    while i < size:
        try:
            if i <= 1:
                i = 2
            data = result[i].replace("\t", "").lstrip()
            if "peer " in data:
                if tmp and name is not None:
                    if name in list:  # type: ignore[operator]
                        list_bfd[name] = dict(list_bfd[name], **tmp)
                    else:
                        list_bfd[name] = tmp
                    tmp = {}
                else:
                    data = data.split(" ")
                    tmp["neighbor_ip"] = data[1]
                    tmp["interface"] = data[3].rstrip()
                    name = data[1] + "_" + data[3]
                    tmp["name"] = name
            elif data.startswith("Local timers"):
                local_timers = {}
                j = i + 1
                for _ in range(3):
                    val = result[j].replace("\t", "").split(":")
                    local_timers[val[0].strip().lower().replace(" ", "_")] = val[1].strip()
                    j = j + 1
                tmp["local_timers"] = local_timers
                i = j - 1
            elif data.startswith("Remote timers"):
                remote_timers = {}
                j = i + 1
                for _ in range(3):
                    val = result[j].replace("\t", "").split(":")
                    remote_timers[val[0].strip().lower().replace(" ", "_")] = val[1].strip()
                    j = j + 1
                tmp["remote_timers"] = remote_timers
                i = j - 1
            elif data != "" and ":" in data:
                val = data.split(":")
                value = val[1].strip().replace("packets", "")
                tmp[val[0].strip().lower().replace(" ", "_")] = value
        except Exception as e:
            _logger.debug("e:" + str(e))
        i = i + 1
    if tmp and name is not None:
        if name in list_bfd:
            list_bfd[name] = dict(list_bfd[name], **tmp)
        else:
            list_bfd[name] = tmp
    return list_bfd


def list_bfd_neighbor() -> list[Any]:
    """BFD neighbors of both address families whose details carry "zebra_notifications"."""
    holder: list[Any] = []
    try:
        info = get_bfd_neighbor("get router info bfd neighbor")
        info6 = get_bfd_neighbor("get router info6 bfd neighbor")
        list_bfd = dict(info, **info6)
        if len(list_bfd) == 0:
            return holder
        known = copy.deepcopy(list_bfd)
        for key in known:
            neighbor_ip = known[key]["neighbor_ip"]
            interface = known[key]["interface"]
            info = get_bfd_neighbor(
                "get router info bfd neighbor " + neighbor_ip + " " + interface, list_bfd
            )
            info6 = get_bfd_neighbor(
                "get router info6 bfd neighbor " + neighbor_ip + " " + interface, info
            )
            list_bfd = dict(info, **info6)
            if "zebra_notifications" in list_bfd[key]:
                holder.append(list_bfd[key])
    except Exception as e:
        _logger.debug("e:" + str(e))
    return holder


def get_routing_table_result(ip_address: Any) -> dict[str, Any]:
    """The routing-table entry that covers an address."""
    _check_text("ip_address", ip_address)
    routing_table: dict[str, Any] = {}
    table = []
    command = "get router info routing-table detail {}".format(ip_address)
    result = text_(get_cli_command_output(command), _CHARSET)
    result = result.replace("\r", "").split("\n")
    count = len(result)
    index = 0
    while not result[index].strip().startswith("Routing"):
        index += 1
    routing_table["entry"] = result[index].split()[3]
    info = result[index + 1].split(",")
    routing_table["distance"] = info[1].split()[1]
    routing_table["metric"] = info[2].split()[1]
    routing_table["lastUpdate"] = result[index + 2].split()[2]
    routing_table["other"] = "{}, {}".format(info[0], info[3])
    index += 3
    while index < count:
        row = result[index].strip()
        if row:
            route = {}
            data = row.split(",")
            ip = data[0].split()
            route["main"] = ""
            route["ip"] = ip[0]
            if len(ip) > 1:
                route["main"] = ip[0]
                route["ip"] = ip[1]
            interface = data[1].split()
            route["interface"] = interface[0]
            if len(interface) > 1:
                route["interface"] = interface[1]
            table.append(route)
        index += 1
    routing_table["table"] = table
    return routing_table


def get_system_arp_result() -> list[dict[str, str]]:
    """The rows of the ARP table."""
    result = []
    system_arp = text_(get_cli_command_output("get system arp"), _CHARSET)
    system_arp = system_arp.split("\n")
    count = len(system_arp)
    index = 0
    while not system_arp[index].strip().startswith("Address"):
        index += 1
    index += 1
    while index < count:
        row = system_arp[index].strip()
        if row:
            data = row.split()
            arp = {}
            arp["ipAddress"] = data[0]
            arp["age"] = data[1]
            arp["mac"] = data[2]
            arp["interface"] = data[3]
            if len(data) >= 5:
                arp["interface"] = "{} {}".format(data[3], data[4])
            result.append(arp)
        index += 1
    return result
