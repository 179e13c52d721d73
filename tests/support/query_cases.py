"""The eighteen bridged functions as rows: what a call sends to the appliance, to which native
function, and the source line of every statement that can fail."""

from __future__ import annotations

import json
from types import ModuleType
from typing import Any, Callable, NamedTuple

import pytest

from veldarin_simulator import RawJSON, Simulator

REPLY: Any = [{"id": 1, "state": ["up", None, 2.5]}]


class Lines(NamedTuple):
    """The lines of the five statements that all bridged functions have."""

    request: int
    response: int
    parse: int
    first_release: int
    second_release: int


class Row(NamedTuple):
    """One call of a bridged function."""

    function: str
    arguments: tuple[Any, ...]
    request: dict[str, Any]
    native: str | None  # None: wired to no native function
    lines: Lines
    reply: Any = REPLY
    picks: Callable[[Any], Any] = lambda reply: reply  # the part of the reply that is returned

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


ACL_INGRESS = Lines(95, 96, 99, 100, 101)
ACL_EGRESS = Lines(105, 106, 109, 110, 111)
ACL_PRELOOKUP = Lines(115, 116, 119, 120, 121)
PORT_STATISTICS = Lines(167, 168, 170, 171, 172)
LLDP = Lines(179, 180, 182, 183, 184)
TRUNK = Lines(188, 189, 191, 192, 193)
MCLAG = Lines(197, 198, 201, 202, 203)
IGMP = Lines(217, 218, 220, 221, 222)
CAPTURE = Lines(362, 363, 373, 374, 375)

ROWS = [
    Row("switch_acl_ingress_counter", (), {}, "build_switch_acl_ingress_stats", ACL_INGRESS),
    Row(
        "switch_acl_ingress_counter",
        (7,),
        {"policy_id": 7},
        "build_switch_acl_ingress_stats",
        ACL_INGRESS,
    ),
    Row("switch_acl_egress_counter", (), {}, None, ACL_EGRESS),
    Row("switch_acl_egress_counter", (7,), {"policy_id": 7}, None, ACL_EGRESS),
    Row("switch_acl_prelookup_counter", (), {}, None, ACL_PRELOOKUP),
    Row("switch_acl_prelookup_counter", (7,), {"policy_id": 7}, None, ACL_PRELOOKUP),
    Row(
        "list_switch_stp_state",
        (3,),
        {"instance_id": 3},
        "build_switch_stp_state",
        Lines(125, 126, 128, 129, 130),
    ),
    Row(
        "list_system_interface_physical",
        ("port1",),
        {"name": "port1"},
        "build_system_interface_physical",
        Lines(134, 135, 137, 141, 142),
        INTERFACES,
        _first_interface,
    ),
    Row("list_switch_lg_state", (), {}, "build_switch_lg_state", Lines(146, 147, 149, 150, 151)),
    Row(
        "list_switch_flapguard_status",
        (),
        {},
        "build_switch_flapguard_status",
        Lines(155, 156, 158, 159, 160),
    ),
    Row(
        "list_switch_port_statistics",
        (None,),
        {},
        "build_switch_port_statistics",
        PORT_STATISTICS._replace(request=165),
    ),
    Row(
        "list_switch_port_statistics",
        ("port1",),
        {"port_name": "port1"},
        "build_switch_port_statistics",
        PORT_STATISTICS,
    ),
    Row(
        "list_switch_lldp_state", (None,), {}, "build_switch_lldp_state", LLDP._replace(request=177)
    ),
    Row(
        "list_switch_lldp_state",
        ("port1",),
        {"port_name": "port1"},
        "build_switch_lldp_state",
        LLDP,
    ),
    Row("list_switch_trunk_state", (), {}, "build_switch_trunk_state", TRUNK),
    Row(
        "list_switch_trunk_state", ("t1",), {"trunk_name": "t1"}, "build_switch_trunk_state", TRUNK
    ),
    Row("list_switch_mclag_list", (), {}, None, MCLAG),
    Row("list_switch_mclag_list", ("m1",), {"mkey": "m1"}, None, MCLAG),
    Row("switch_mclag_icl", (), {}, None, Lines(207, 208, 211, 212, 213)),
    Row("list_switch_igmp_snooping_group", (None,), {}, "build_switch_igmp_snooping_group", IGMP),
    Row(
        "list_switch_igmp_snooping_group",
        ("port1",),
        {"port_name": "port1"},
        "build_switch_igmp_snooping_group",
        IGMP,
    ),
    Row(
        "list_system_flash_list_status",
        (),
        {},
        "build_system_flash_list",
        Lines(226, 227, 229, 230, 231),
    ),
    Row(
        "list_system_link_monitor_status",
        (),
        {},
        "build_system_link_monitor_status",
        Lines(235, 236, 238, 239, 240),
    ),
    Row(
        "list_switch_module_summary",
        (),
        {},
        "build_switch_modules_summary",
        Lines(244, 245, 248, 249, 250),
    ),
    Row(
        "get_system_sniffer_profile_summary",
        (),
        {},
        "build_system_sniffer_profile_summary",
        Lines(352, 353, 356, 357, 358),
    ),
    Row(
        "capture_sniffer_profile",
        ("p1", "Running"),
        {"profile-name": "p1"},
        "build_start_sniffer_profile_capture",
        CAPTURE,
    ),
    Row(
        "capture_sniffer_profile",
        ("p1", "Stop"),
        {"profile-name": "p1"},
        "build_stop_sniffer_profile_capture",
        CAPTURE,
    ),
    Row(
        "capture_sniffer_profile",
        ("p1", "Pause"),
        {"profile-name": "p1"},
        "build_pause_sniffer_profile_capture",
        CAPTURE,
    ),
    Row(
        "capture_sniffer_profile",
        ("p1", "Delete"),
        {"profile-name": "p1"},
        "build_delete_sniffer_profile_capture",
        CAPTURE,
    ),
    Row("capture_sniffer_profile", ("p1", "Start"), {"profile-name": "p1"}, None, CAPTURE),
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

every_row = pytest.mark.parametrize("row", ROWS, ids=str)
every_native_row = pytest.mark.parametrize("row", [r for r in ROWS if r.native], ids=str)
every_row_without_native = pytest.mark.parametrize(
    "row", [r for r in ROWS if not r.native], ids=str
)


def prepare(simulator: Simulator, row: Row) -> None:
    """Makes the row's reply what the appliance answers, or what an untouched response holds."""
    if row.native:
        simulator.set_reply(row.native, row.reply)
    else:
        simulator.default_response = RawJSON(json.dumps(row.reply))


def crossings(simulator: Simulator) -> list[tuple[str, Any]]:
    """What crossed to the appliance, in order: (service, request as data)."""
    return [
        (call.service, None if call.request is None else json.loads(call.request))
        for call in simulator.call_log
    ]


def natively(simulator: Simulator) -> list[tuple[str, Any]]:
    """The crossings without the releases of `JSONObject`."""
    return [call for call in crossings(simulator) if call[0] != "JSONObject.release"]
