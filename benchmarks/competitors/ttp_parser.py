"""The parsers as TTP templates, compiled once."""

from __future__ import annotations

from typing import Any

from ttp import ttp

from benchmarks.competitors import results
from veldarin.modules.modules_util import get_cli_command_output

_ARP = ttp(
    template="""
<group name="rows*">
{{ ipAddress }} {{ age }} {{ mac }} {{ interface }}
</group>
"""
)

_ROUTING = ttp(
    template="""
<group name="header">
Routing entry for {{ entry }}
{{ known | re(".*") }}, distance {{ distance }}, metric {{ metric }},{{ best | re(".*") }}
  Last update {{ lastUpdate }} ago
</group>
<group name="table*">
  {{ main }} {{ ip }}, via {{ interface }}
</group>
"""
)

_BFD = ttp(
    template="""
<group name="lines*">
peer {{ address | _start_ }} interface {{ interface }}
{{ timers | _start_ }} timers
{{ key | ORPHRASE | _start_ }}: {{ value | ORPHRASE }}
</group>
"""
)
_BFD_PARTS = ("address", "interface", "timers", "key", "value")


def get_system_arp_result() -> list[dict[str, str]]:
    rows: list[dict[str, str]] = _parse(_ARP, get_cli_command_output("get system arp"))["rows"]
    return rows


def get_routing_table_result(ip_address: str) -> dict[str, Any]:
    text = get_cli_command_output(f"get router info routing-table detail {ip_address}")
    parsed = _parse(_ROUTING, text.replace("\r", ""))
    return results.routing_entry(parsed["header"], parsed["table"])


def get_bfd_neighbor(cmd: str, list_bfd: dict[str, Any]) -> dict[str, Any]:
    # A pattern matches from the beginning of a line. The first line is not a part of the session.
    text = "\n".join(line.lstrip() for line in get_cli_command_output(cmd).split("\n")[1:])
    lines = _parse(_BFD, text)["lines"]
    return results.merge_session((list(map(line.get, _BFD_PARTS)) for line in lines), list_bfd)


def _parse(parser: Any, text: str) -> Any:
    parser.clear_input()
    parser.clear_result()
    parser.add_input(text)
    parser.parse(one=True)
    return parser.result(structure="flat_list")[0]
