"""The parsers as compiled regular expressions: one pattern matches the rows of a table."""

from __future__ import annotations

import re
from typing import Any

from benchmarks.competitors import results
from veldarin.modules.modules_util import get_cli_command_output

_ARP_HEADER = re.compile(r"^\s*Address.*$", re.MULTILINE)
_ARP_ROW = re.compile(
    r"^[ \t]*(?P<ipAddress>\S+)[ \t]+(?P<age>\S+)[ \t]+(?P<mac>\S+)"
    r"[ \t]+(?P<interface>\S+(?: \S+)?)",
    re.MULTILINE,
)
_ROUTING_HEADER = re.compile(
    r"^\s*Routing\s+\S+\s+\S+\s+(?P<entry>\S+).*\n"
    r"(?P<known>[^,\n]*),\s*\S+\s+(?P<distance>[^\s,]+)[^,\n]*,\s*\S+\s+(?P<metric>[^\s,]+)[^,\n]*,"
    r"(?P<best>[^,\n]*).*\n"
    r"\s*\S+\s+\S+\s+(?P<lastUpdate>\S+).*$",
    re.MULTILINE,
)
_ROUTE = re.compile(
    r"^[ \t]*(?:(?P<main>[^\s,]+)[ \t]+)?(?P<ip>[^\s,]+)[^,\n]*,"
    r"[ \t]*(?:[^\s,]+[ \t]+)?(?P<interface>[^\s,]+)",
    re.MULTILINE,
)
_BFD_LINE = re.compile(
    r"^[ \t]*(?:peer (?P<address>[^ \n]*) [^ \n]* (?P<interface>[^ \n]*).*"
    r"|(?P<timers>Local|Remote) timers"
    r"|(?P<key>[^:\n]*?)[ \t]*:[ \t]*(?P<value>[^:\n]*?)[ \t]*(?::.*)?)$",
    re.MULTILINE,
)


def get_system_arp_result() -> list[dict[str, str]]:
    text = get_cli_command_output("get system arp")
    header = _ARP_HEADER.search(text)
    if not header:
        raise IndexError("list index out of range")
    return [row.groupdict() for row in _ARP_ROW.finditer(text, header.end())]


def get_routing_table_result(ip_address: str) -> dict[str, Any]:
    text = get_cli_command_output(f"get router info routing-table detail {ip_address}")
    text = text.replace("\r", "")
    header = _ROUTING_HEADER.search(text)
    if not header:
        raise IndexError("list index out of range")
    routes = [route.groupdict("") for route in _ROUTE.finditer(text, header.end())]
    return results.routing_entry(header, routes)


def get_bfd_neighbor(cmd: str, list_bfd: dict[str, Any]) -> dict[str, Any]:
    text = get_cli_command_output(cmd)
    lines = _BFD_LINE.finditer(text, text.index("\n"))
    return results.merge_session(map(re.Match.groups, lines), list_bfd)
