"""The views, which call the module as any Python code does."""

from __future__ import annotations

from typing import Any

from pyramid.httpexceptions import HTTPServiceUnavailable
from pyramid.view import view_config

from veldarin.modules import modules_util


@view_config(route_name="ports", renderer="json")
def ports(request: Any) -> list[dict[str, Any]]:
    """Return the ports with their total of errors, those with most errors first."""
    counters = modules_util.list_switch_port_statistics(request.params.get("port"))
    errors = [
        {"port": row["port_name"], "errors": row["errin"] + row["errout"]} for row in counters or []
    ]
    return sorted(errors, key=lambda row: -row["errors"])


@view_config(route_name="neighbors", renderer="json")
def neighbors(request: Any) -> list[dict[str, str]]:
    """Return the ARP table."""
    try:
        rows = modules_util.get_system_arp_result()
    except modules_util.CFunctionError as error:
        raise HTTPServiceUnavailable("the ARP table is not available") from error
    return [{"address": row["ipAddress"], "port": row["interface"]} for row in rows]
