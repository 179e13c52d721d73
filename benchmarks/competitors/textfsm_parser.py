"""The parsers as TextFSM templates, compiled once."""

from __future__ import annotations

import io
from typing import Any

from textfsm import TextFSM

from benchmarks.competitors import results
from veldarin.modules.modules_util import get_cli_command_output

_ARP = TextFSM(
    io.StringIO(
        r"""
Value ipAddress (\S+)
Value age (\S+)
Value mac (\S+)
Value interface (\S+(?: \S+)?)

Start
  ^\s*Address -> Rows

Rows
  ^\s*${ipAddress}\s+${age}\s+${mac}\s+${interface} -> Record
""".lstrip()
    )
)

_ROUTING = TextFSM(
    io.StringIO(
        r"""
Value Filldown entry (\S+)
Value Filldown known ([^,]*)
Value Filldown distance (\S+)
Value Filldown metric (\S+)
Value Filldown best ([^,]*)
Value Filldown lastUpdate (\S+)
Value main ([^\s,]+)
Value Required ip ([^\s,]+)
Value interface ([^\s,]+)

Start
  ^\s*Routing\s+\S+\s+\S+\s+${entry} -> Info

Info
  ^${known},\s*\S+\s+${distance}\s*,\s*\S+\s+${metric}\s*,${best} -> Update

Update
  ^\s*\S+\s+\S+\s+${lastUpdate} -> Routes

Routes
  ^\s*${main}\s+${ip}[^,]*,\s*\S+\s+${interface} -> Record
  ^\s*${ip}\s*,\s*\S+\s+${interface} -> Record
""".lstrip()
    )
)

_BFD = TextFSM(
    io.StringIO(
        r"""
Value address (\S+)
Value interface (\S+)
Value timers (Local|Remote)
Value key ([^:]*?)
Value value ([^:]*?)

Start
  ^.* -> Lines

Lines
  ^\s*peer ${address} \S+ ${interface} -> Record
  ^\s*${timers} timers -> Record
  ^\s*${key}\s*:\s*${value}\s*(?::|$$) -> Record
""".lstrip()
    )
)


def get_system_arp_result() -> list[dict[str, str]]:
    rows = _parse(_ARP, get_cli_command_output("get system arp"))
    return [dict(zip(_ARP.header, row)) for row in rows]


def get_routing_table_result(ip_address: str) -> dict[str, Any]:
    text = get_cli_command_output(f"get router info routing-table detail {ip_address}")
    rows = _parse(_ROUTING, text.replace("\r", ""))
    routes = [{"main": main, "ip": ip, "interface": interface} for *_, main, ip, interface in rows]
    return results.routing_entry(dict(zip(_ROUTING.header, rows[0])), routes)


def get_bfd_neighbor(cmd: str, list_bfd: dict[str, Any]) -> dict[str, Any]:
    return results.merge_session(_parse(_BFD, get_cli_command_output(cmd)), list_bfd)


def _parse(machine: TextFSM, text: str) -> Any:
    machine.Reset()
    return machine.ParseText(text)
