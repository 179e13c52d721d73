"""The parsers in plain Python with `str.split`, written for speed."""

from __future__ import annotations

from itertools import islice
from typing import Any

from veldarin.modules.modules_util import get_cli_command_output


def get_system_arp_result() -> list[dict[str, str]]:
    lines = iter(get_cli_command_output("get system arp").split("\n"))
    while not next(lines).lstrip().startswith("Address"):
        pass
    result = []
    for line in lines:
        data = line.split()
        if data:
            ip_address, age, mac = data[:3]
            interface = data[3] if len(data) == 4 else f"{data[3]} {data[4]}"
            result.append({"ipAddress": ip_address, "age": age, "mac": mac, "interface": interface})
    return result


def get_routing_table_result(ip_address: str) -> dict[str, Any]:
    text = get_cli_command_output(f"get router info routing-table detail {ip_address}")
    lines = iter(text.replace("\r", "").split("\n"))
    line = next(lines)
    while not line.lstrip().startswith("Routing"):
        line = next(lines)
    info = next(lines).split(",")
    routing_table: dict[str, Any] = {
        "entry": line.split()[3],
        "distance": info[1].split()[1],
        "metric": info[2].split()[1],
        "lastUpdate": next(lines).split()[2],
        "other": f"{info[0]}, {info[3]}",
    }
    table = []
    for line in lines:
        if line and not line.isspace():
            data = line.split(",")
            ip = data[0].split()
            interface = data[1].split()
            main, address = ip[:2] if len(ip) > 1 else ("", ip[0])
            table.append(
                {
                    "main": main,
                    "ip": address,
                    "interface": interface[1] if len(interface) > 1 else interface[0],
                }
            )
    routing_table["table"] = table
    return routing_table


def get_bfd_neighbor(cmd: str, list_bfd: dict[str, Any]) -> dict[str, Any]:
    text = get_cli_command_output(cmd)
    if "peer" not in text:
        return list_bfd
    lines = iter(text.replace("\t", "").split("\n")[2 if "objname" in text else 1 :])
    session: dict[str, Any] = {}
    name = None
    for line in lines:
        data = line.lstrip()
        if "peer " in data:
            if name is None:
                words = data.split(" ")
                name = f"{words[1]}_{words[3]}"
                session["neighbor_ip"] = words[1]
                session["interface"] = words[3].rstrip()
                session["name"] = name
        elif data.startswith(("Local timers", "Remote timers")):
            timers = dict(_field(timer) for timer in islice(lines, 3))
            session["local_timers" if data[0] == "L" else "remote_timers"] = timers
        elif ":" in data:
            key, value = _field(data)
            session[key] = value.replace("packets", "")
    if name is not None:
        list_bfd[name] = {**list_bfd[name], **session} if name in list_bfd else session
    return list_bfd


def _field(line: str) -> tuple[str, str]:
    key, value = line.split(":", 2)[:2]
    return key.strip().lower().replace(" ", "_"), value.strip()
