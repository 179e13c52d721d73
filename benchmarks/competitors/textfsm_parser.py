"""The parsers as TextFSM templates, compiled once; what is left is to name the columns."""

from __future__ import annotations

import io
from typing import Any

from textfsm import TextFSM

from benchmarks.competitors import bfd_merge
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
    """The rows of the ARP table."""
    rows = _parsed(_ARP, get_cli_command_output("get system arp"))
    return [dict(zip(_ARP.header, row)) for row in rows]


def get_routing_table_result(ip_address: str) -> dict[str, Any]:
    """The routing-table entry that covers an address."""
    text = get_cli_command_output(f"get router info routing-table detail {ip_address}")
    rows = _parsed(_ROUTING, text.replace("\r", ""))
    entry, known, distance, metric, best, last_update, *_ = rows[0]
    return {
        "entry": entry,
        "distance": distance,
        "metric": metric,
        "lastUpdate": last_update,
        "other": f"{known}, {best}",
        "table": [
            {"main": main, "ip": ip, "interface": interface} for *_, main, ip, interface in rows
        ],
    }


def get_bfd_neighbor(cmd: str, list_bfd: dict[str, Any]) -> dict[str, Any]:
    """BFD sessions of a command's output, merged into `list_bfd`."""
    return bfd_merge.merge(_parsed(_BFD, get_cli_command_output(cmd)), list_bfd)


def _parsed(machine: TextFSM, text: str) -> Any:
    machine.Reset()
    return machine.ParseText(text)
