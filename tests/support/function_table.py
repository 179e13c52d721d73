"""The expected table of the thirty functions, in order: parameters, binding, and the bounds of the
first source line (equal if the line is known)."""

from __future__ import annotations

from typing import NamedTuple

from tests.support.assertions import MODULE


class Parameter(NamedTuple):
    """A parameter; `type` is the type that is required, besides None, if any."""

    name: str
    type: type | None = None
    optional: bool = False


class Function(NamedTuple):
    """One row: `kind` is "none", "one" or "keywords"."""

    name: str
    kind: str
    parameters: tuple[Parameter, ...]
    first_line: tuple[int, int]  # inclusive bounds

    @property
    def qualified(self) -> str:
        """The name in traceback entries and in the interpreter's messages."""
        return f"{MODULE}.{self.name}"

    @property
    def required(self) -> int:
        """The number of parameters without a default."""
        return sum(not parameter.optional for parameter in self.parameters)


def _none(name: str, *first_line: int) -> Function:
    return Function(name, "none", (), (first_line[0], first_line[-1]))


def _one(name: str, parameter: str, of_type: type | None, *first_line: int) -> Function:
    return Function(name, "one", (Parameter(parameter, of_type),), (first_line[0], first_line[-1]))


def _optional(name: str, parameter: str, first_line: int) -> Function:
    only = Parameter(parameter, optional=True)
    return Function(name, "keywords", (only,), (first_line, first_line))


FUNCTIONS = (
    _none("new_cookie_id", 1, 93),
    _one("aps_unsigned_int_hash", "characters", bytes, 1, 93),
    _one("get_cookie_name", "https", None, 1, 93),
    _one("encrypt_cookie", "plain", bytes, 1, 93),
    _one("decrypt_cookie", "encrypted", bytes, 1, 93),
    _none("get_token", 1, 93),
    _one("check_cert_expiration", "path", bytes, 1, 93),
    _optional("switch_acl_ingress_counter", "policy_id", 94),
    _optional("switch_acl_egress_counter", "policy_id", 104),
    _optional("switch_acl_prelookup_counter", "policy_id", 114),
    _one("list_switch_stp_state", "instance_id", None, 124),
    _one("list_system_interface_physical", "name", str, 131, 133),
    _none("list_switch_lg_state", 145),
    _none("list_switch_flapguard_status", 154),
    _one("list_switch_port_statistics", "port_name", str, 163),
    _one("list_switch_lldp_state", "port_name", str, 175),
    _optional("list_switch_trunk_state", "trunk_name", 187),
    _optional("list_switch_mclag_list", "mkey", 196),
    _none("switch_mclag_icl", 206),
    _one("list_switch_igmp_snooping_group", "port_name", str, 216),
    _none("list_system_flash_list_status", 223, 225),
    _none("list_system_link_monitor_status", 232, 234),
    _none("list_switch_module_summary", 243),
    _one("get_cli_command_output", "cmd_s", str, 251, 351),
    Function(
        "get_bfd_neighbor",
        "keywords",
        (Parameter("cmd"), Parameter("list_bfd", optional=True)),
        (251, 351),
    ),
    _none("list_bfd_neighbor", 251, 351),
    _none("get_system_sniffer_profile_summary", 251, 351),
    Function(
        "capture_sniffer_profile",
        "keywords",
        (Parameter("profile_name", str), Parameter("event", str)),
        (361, 361),
    ),
    _one("get_routing_table_result", "ip_address", str, 376, 10**6),
    _none("get_system_arp_result", 376, 10**6),
)
NAMED = {function.name: function for function in FUNCTIONS}
