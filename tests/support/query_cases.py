"""The eighteen queries: what a call sends to which native service, and the source line of every
statement that can fail."""

from __future__ import annotations

import json
from collections.abc import Iterator
from types import SimpleNamespace
from typing import Any, Callable, NamedTuple

import pytest

from tests.support.function_table import NAMED
from veldarin_simulator import RawJSON, Simulator

REPLY: Any = [{"id": 1, "state": ["up", None, 2.5]}]


class QueryLines(NamedTuple):
    """The lines of the five statements that every query has."""

    request: int
    response: int
    parse: int
    first_release: int
    second_release: int


class QueryCase(NamedTuple):
    """One call of a query."""

    function: str
    arguments: tuple[Any, ...]
    request: dict[str, Any]
    native: str | None  # None: the query calls no service
    lines: QueryLines
    reply: Any = REPLY
    select: Callable[[Any], Any] = lambda reply: reply  # what is returned

    def __str__(self) -> str:
        return f"{self.function}{self.arguments}"


INTERFACES = [{"interface": [{"name": "port1", "speed": 1000}, {"name": "port2"}]}]
ARGUMENTS = {"policy_id": 7, "instance_id": 3, "trunk_name": "t1", "mkey": "m1"}  # else "port1"

# function, native service, and the lines of `QueryLines`
TABLE = """
switch_acl_ingress_counter          build_switch_acl_ingress_stats        95  96  99 100 101
switch_acl_egress_counter           -                                    105 106 109 110 111
switch_acl_prelookup_counter        -                                    115 116 119 120 121
list_switch_stp_state               build_switch_stp_state               125 126 128 129 130
list_system_interface_physical      build_system_interface_physical      134 135 137 141 142
list_switch_lg_state                build_switch_lg_state                146 147 149 150 151
list_switch_flapguard_status        build_switch_flapguard_status        155 156 158 159 160
list_switch_port_statistics         build_switch_port_statistics         167 168 170 171 172
list_switch_lldp_state              build_switch_lldp_state              179 180 182 183 184
list_switch_trunk_state             build_switch_trunk_state             188 189 191 192 193
list_switch_mclag_list              -                                    197 198 201 202 203
switch_mclag_icl                    -                                    207 208 211 212 213
list_switch_igmp_snooping_group     build_switch_igmp_snooping_group     217 218 220 221 222
list_system_flash_list_status       build_system_flash_list              226 227 229 230 231
list_system_link_monitor_status     build_system_link_monitor_status     235 236 238 239 240
list_switch_module_summary          build_switch_modules_summary         244 245 248 249 250
get_system_sniffer_profile_summary  build_system_sniffer_profile_summary 352 353 356 357 358
"""
# Queries without a port name send the empty request in a statement of their own.
EMPTY_REQUEST_LINES = {"list_switch_port_statistics": 165, "list_switch_lldp_state": 177}
CAPTURE = QueryLines(362, 363, 373, 374, 375)


def _queries() -> Iterator[QueryCase]:
    """Yield the calls of each function, without an argument first if it may be left out."""
    for row in TABLE.strip().splitlines():
        function, service, *numbers = row.split()
        native = None if service == "-" else service
        lines = QueryLines(*map(int, numbers))
        empty_lines = lines._replace(request=EMPTY_REQUEST_LINES.get(function, lines.request))
        parameters = NAMED[function].parameters
        key = parameters[0].name if parameters else ""
        if NAMED[function].required == 0:
            yield QueryCase(function, (), {}, native, lines)
        elif key == "port_name":
            yield QueryCase(function, (None,), {}, native, empty_lines)
        if parameters:
            value = ARGUMENTS.get(key, "port1")
            case = QueryCase(function, (value,), {key: value}, native, lines)
            if function == "list_system_interface_physical":
                case = case._replace(
                    reply=INTERFACES, select=lambda reply: reply[0]["interface"][0]
                )
            yield case
    events = {"Running": "start", "Stop": "stop", "Pause": "pause", "Delete": "delete"}
    for event, verb in events.items():
        native = f"build_{verb}_sniffer_profile_capture"
        yield _capture(event, native)
    yield _capture("Start", None)


def _capture(event: str, native: str | None) -> QueryCase:
    arguments, request = ("p1", event), {"profile-name": "p1"}
    return QueryCase("capture_sniffer_profile", arguments, request, native, CAPTURE)


QUERY_CASES = [*_queries()]


class Query:
    """A query case on a simulator, whose module the test may patch."""

    def __init__(self, case: QueryCase, simulator: Simulator, patch: pytest.MonkeyPatch) -> None:
        self.case, self.simulator, self.module = case, simulator, simulator.module
        self.function, self.lines, self.native = case.function, case.lines, case.native
        self.request, self.reply, self.select = case.request, case.reply, case.select
        self._patch = patch

    def prepare(self, text: str | None = None) -> None:
        """Set the service's reply, or the response that is left untouched; `text` is raw JSON."""
        reply = RawJSON(json.dumps(self.reply) if text is None else text)
        if self.native:
            self.simulator.set_reply(self.native, reply)
        else:
            self.simulator.default_response = reply

    def call(self) -> Any:
        """Call the function."""
        return getattr(self.module, self.function)(*self.case.arguments)

    def patch(self, name: str, value: object) -> None:
        """Bind a global of the module to another value."""
        self._patch.setattr(self.module, name, value)

    def patch_loads(self, loads: object) -> None:
        """Replace the JSON parser of the module."""
        self.patch("json", SimpleNamespace(loads=loads))

    def delete(self, name: str) -> None:
        """Delete a global of the module."""
        self._patch.delattr(self.module, name)

    @property
    def sent(self) -> list[tuple[str, Any]]:
        """The native call that is expected, as (service, request); none without a service."""
        return [(self.native, self.request)] if self.native else []

    @property
    def native_calls(self) -> list[tuple[str, Any]]:
        return native_calls(self.simulator)


every_native_query = pytest.mark.parametrize(
    "query", [case for case in QUERY_CASES if case.native], ids=str, indirect=True
)
every_query_without_native = pytest.mark.parametrize(
    "query", [case for case in QUERY_CASES if not case.native], ids=str, indirect=True
)


def native_calls(simulator: Simulator) -> list[tuple[str, Any]]:
    """Return the native calls in order, as (service, request)."""
    return [
        (call.service, None if call.request is None else json.loads(call.request))
        for call in simulator.call_log
    ]


def without_releases(simulator: Simulator) -> list[tuple[str, Any]]:
    """Return the native calls without the releases of `JSONObject`."""
    return [call for call in native_calls(simulator) if call[0] != "JSONObject.release"]


def sent_request(simulator: Simulator) -> Any:
    """Return the request of the last call, as its `JSONObject` held it."""
    released = [call for call in native_calls(simulator) if call[0] == "JSONObject.release"]
    return released[-2][1]
