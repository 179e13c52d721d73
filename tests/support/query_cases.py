"""The eighteen bridged functions as rows: what a call sends to the appliance, to which native
function, and the source line of every statement that can fail."""

from __future__ import annotations

import json
from types import ModuleType
from typing import Any, Callable, NamedTuple

import pytest

from veldarin_simulator import RawJSON, Simulator

REPLY: Any = [{"id": 1, "state": ["up", None, 2.5]}]


class QueryLines(NamedTuple):
    """The lines of the five statements that all bridged functions have."""

    request: int
    response: int
    parse: int
    first_release: int
    second_release: int


class QueryCase(NamedTuple):
    """One call of a bridged function."""

    function: str
    arguments: tuple[Any, ...]
    request: dict[str, Any]
    native: str | None  # None: wired to no native function
    lines: QueryLines
    reply: Any = REPLY
    select: Callable[[Any], Any] = lambda reply: reply  # the part of the reply that is returned

    def call(self, module: ModuleType) -> Any:
        """The function, called."""
        return getattr(module, self.function)(*self.arguments)

    @property
    def sent(self) -> list[tuple[str, Any]]:
        """The native call of the row as the journal's (service, request), if there is one."""
        return [(self.native, self.request)] if self.native else []

    def __str__(self) -> str:
        return f"{self.function}{self.arguments}"


INTERFACES = [{"interface": [{"name": "port1", "speed": 1000}, {"name": "port2"}]}]


def _first_interface(reply: Any) -> Any:
    return reply[0]["interface"][0]


ACL_INGRESS = QueryLines(95, 96, 99, 100, 101)
ACL_EGRESS = QueryLines(105, 106, 109, 110, 111)
ACL_PRELOOKUP = QueryLines(115, 116, 119, 120, 121)
PORT_STATISTICS = QueryLines(167, 168, 170, 171, 172)
LLDP = QueryLines(179, 180, 182, 183, 184)
TRUNK = QueryLines(188, 189, 191, 192, 193)
MCLAG = QueryLines(197, 198, 201, 202, 203)
IGMP = QueryLines(217, 218, 220, 221, 222)
CAPTURE = QueryLines(362, 363, 373, 374, 375)

QUERY_CASES = [
    QueryCase("switch_acl_ingress_counter", (), {}, "build_switch_acl_ingress_stats", ACL_INGRESS),
    QueryCase(
        "switch_acl_ingress_counter",
        (7,),
        {"policy_id": 7},
        "build_switch_acl_ingress_stats",
        ACL_INGRESS,
    ),
    QueryCase("switch_acl_egress_counter", (), {}, None, ACL_EGRESS),
    QueryCase("switch_acl_egress_counter", (7,), {"policy_id": 7}, None, ACL_EGRESS),
    QueryCase("switch_acl_prelookup_counter", (), {}, None, ACL_PRELOOKUP),
    QueryCase("switch_acl_prelookup_counter", (7,), {"policy_id": 7}, None, ACL_PRELOOKUP),
    QueryCase(
        "list_switch_stp_state",
        (3,),
        {"instance_id": 3},
        "build_switch_stp_state",
        QueryLines(125, 126, 128, 129, 130),
    ),
    QueryCase(
        "list_system_interface_physical",
        ("port1",),
        {"name": "port1"},
        "build_system_interface_physical",
        QueryLines(134, 135, 137, 141, 142),
        INTERFACES,
        _first_interface,
    ),
    QueryCase(
        "list_switch_lg_state", (), {}, "build_switch_lg_state", QueryLines(146, 147, 149, 150, 151)
    ),
    QueryCase(
        "list_switch_flapguard_status",
        (),
        {},
        "build_switch_flapguard_status",
        QueryLines(155, 156, 158, 159, 160),
    ),
    QueryCase(
        "list_switch_port_statistics",
        (None,),
        {},
        "build_switch_port_statistics",
        PORT_STATISTICS._replace(request=165),
    ),
    QueryCase(
        "list_switch_port_statistics",
        ("port1",),
        {"port_name": "port1"},
        "build_switch_port_statistics",
        PORT_STATISTICS,
    ),
    QueryCase(
        "list_switch_lldp_state", (None,), {}, "build_switch_lldp_state", LLDP._replace(request=177)
    ),
    QueryCase(
        "list_switch_lldp_state",
        ("port1",),
        {"port_name": "port1"},
        "build_switch_lldp_state",
        LLDP,
    ),
    QueryCase("list_switch_trunk_state", (), {}, "build_switch_trunk_state", TRUNK),
    QueryCase(
        "list_switch_trunk_state", ("t1",), {"trunk_name": "t1"}, "build_switch_trunk_state", TRUNK
    ),
    QueryCase("list_switch_mclag_list", (), {}, None, MCLAG),
    QueryCase("list_switch_mclag_list", ("m1",), {"mkey": "m1"}, None, MCLAG),
    QueryCase("switch_mclag_icl", (), {}, None, QueryLines(207, 208, 211, 212, 213)),
    QueryCase(
        "list_switch_igmp_snooping_group", (None,), {}, "build_switch_igmp_snooping_group", IGMP
    ),
    QueryCase(
        "list_switch_igmp_snooping_group",
        ("port1",),
        {"port_name": "port1"},
        "build_switch_igmp_snooping_group",
        IGMP,
    ),
    QueryCase(
        "list_system_flash_list_status",
        (),
        {},
        "build_system_flash_list",
        QueryLines(226, 227, 229, 230, 231),
    ),
    QueryCase(
        "list_system_link_monitor_status",
        (),
        {},
        "build_system_link_monitor_status",
        QueryLines(235, 236, 238, 239, 240),
    ),
    QueryCase(
        "list_switch_module_summary",
        (),
        {},
        "build_switch_modules_summary",
        QueryLines(244, 245, 248, 249, 250),
    ),
    QueryCase(
        "get_system_sniffer_profile_summary",
        (),
        {},
        "build_system_sniffer_profile_summary",
        QueryLines(352, 353, 356, 357, 358),
    ),
    QueryCase(
        "capture_sniffer_profile",
        ("p1", "Running"),
        {"profile-name": "p1"},
        "build_start_sniffer_profile_capture",
        CAPTURE,
    ),
    QueryCase(
        "capture_sniffer_profile",
        ("p1", "Stop"),
        {"profile-name": "p1"},
        "build_stop_sniffer_profile_capture",
        CAPTURE,
    ),
    QueryCase(
        "capture_sniffer_profile",
        ("p1", "Pause"),
        {"profile-name": "p1"},
        "build_pause_sniffer_profile_capture",
        CAPTURE,
    ),
    QueryCase(
        "capture_sniffer_profile",
        ("p1", "Delete"),
        {"profile-name": "p1"},
        "build_delete_sniffer_profile_capture",
        CAPTURE,
    ),
    QueryCase("capture_sniffer_profile", ("p1", "Start"), {"profile-name": "p1"}, None, CAPTURE),
]

# Where the definition of the function stands: its argument errors are reported there.
FIRST_LINES = {
    "switch_acl_ingress_counter": 94,
    "switch_acl_egress_counter": 104,
    "switch_acl_prelookup_counter": 114,
    "list_switch_stp_state": 124,
    "list_switch_lg_state": 145,
    "list_switch_flapguard_status": 154,
    "list_switch_port_statistics": 163,
    "list_switch_lldp_state": 175,
    "list_switch_trunk_state": 187,
    "list_switch_mclag_list": 196,
    "switch_mclag_icl": 206,
    "list_switch_igmp_snooping_group": 216,
    "list_switch_module_summary": 243,
    "capture_sniffer_profile": 361,
}

every_query = pytest.mark.parametrize("row", QUERY_CASES, ids=str)
every_native_query = pytest.mark.parametrize("row", [r for r in QUERY_CASES if r.native], ids=str)
every_query_without_native = pytest.mark.parametrize(
    "row", [r for r in QUERY_CASES if not r.native], ids=str
)


def prepare(simulator: Simulator, row: QueryCase) -> None:
    """Makes the row's reply what the appliance answers, or what an untouched response holds."""
    if row.native:
        simulator.set_reply(row.native, row.reply)
    else:
        simulator.default_response = RawJSON(json.dumps(row.reply))


def native_calls(simulator: Simulator) -> list[tuple[str, Any]]:
    """What crossed to the appliance, in order: (service, request as data)."""
    return [
        (call.service, None if call.request is None else json.loads(call.request))
        for call in simulator.call_log
    ]


def without_releases(simulator: Simulator) -> list[tuple[str, Any]]:
    """The crossings without the releases of `JSONObject`."""
    return [call for call in native_calls(simulator) if call[0] != "JSONObject.release"]
