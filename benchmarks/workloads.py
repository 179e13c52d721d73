"""The workloads: the measured calls, with their native replies and lower bounds.

Figures are per row of the parsed table, or per call.
"""

from __future__ import annotations

import json
from collections.abc import Callable, Mapping
from dataclasses import dataclass, field
from typing import Any

from benchmarks import cli_samples
from benchmarks.cli_samples import Variant
from veldarin_simulator import RawJSON

CLI = "get_cli_cmd_output"
LOWER_BOUND = "lower bound"
NEW_KEYS = "lower bound, new keys"
WITH_BYTES = "lower bound, bytes ready"

_SHORT_CALLS = 100  # `calls` of a workload that takes little time


@dataclass(frozen=True)
class Workload:
    """One call of a function.

    Attributes:
        replies: Returns the fixed replies by native service.
        keywords: Names of the last arguments, if they are keyword arguments.
        rows: The number that the figures are divided by.
        bounds: Maps the name of a figure, such as "lower bound", to the function measured for it:
            one of the lower-bound module, or "deepcopy". "rebuild…" and "deepcopy" get the call's
            result, "bridge_with_bytes" the serialized reply, the others the call's arguments.
        clears: Whether to clear the last argument, a dictionary that the call fills, before a call.
        sessions: The number of BFD sessions known from earlier calls.
        raises: The exception that every call raises.
        calls: The number of calls in the shorter of the two runs under callgrind.
        compiled_only: Whether to leave out the plain Python competitors, whose functions do not
            have these parameters or this exception.
        no_parse: Whether to leave out the JSON work: json-c copies a ready text and `loads` is an
            empty builtin.
    """

    name: str
    function: str
    replies: Callable[[], Mapping[str, object]] = dict
    arguments: tuple[Any, ...] = ()
    keywords: tuple[str, ...] = ()
    rows: int = 1
    bounds: Mapping[str, str] = field(default_factory=dict)
    clears: bool = False
    sessions: int = 0
    raises: type[BaseException] | None = None
    calls: int = 1
    compiled_only: bool = False
    no_parse: bool = False


def _calls(rows: int) -> int:
    return 1 if rows > 100 else 20


def arp(rows: int, variant: Variant) -> Workload:
    """Parse the ARP table."""
    return Workload(
        f"ARP, {rows:,} rows, {variant.value}",
        "get_system_arp_result",
        lambda: {CLI: cli_samples.arp(rows, variant)},
        rows=rows,
        calls=_calls(rows),
        bounds={LOWER_BOUND: "rebuild"},
    )


def routing(rows: int, variant: Variant) -> Workload:
    """Parse the routing table."""
    return Workload(
        f"routing, {rows:,} routes, {variant.value}",
        "get_routing_table_result",
        lambda: {CLI: cli_samples.routing(rows, variant)},
        ("192.0.2.7",),
        rows=rows,
        calls=_calls(rows),
        bounds={LOWER_BOUND: "rebuild"},
    )


def bfd(rows: int, variant: Variant) -> Workload:
    """Parse BFD sessions; a row is a "key: value" line."""
    return Workload(
        f"BFD, {rows:,} key lines, {variant.value}",
        "get_bfd_neighbor",
        lambda: {CLI: cli_samples.bfd(rows, variant)},
        ("get router info bfd neighbor", {}),
        rows=rows,
        calls=_calls(rows),
        bounds={LOWER_BOUND: "rebuild", NEW_KEYS: "rebuild_with_keys"},
        clears=True,
    )


def listing(neighbors: int) -> Workload:
    """List the BFD neighbors; every command has the same output.

    "deepcopy" is the interpreter's `copy.deepcopy` of the sessions, which the function calls.
    """
    return Workload(
        f"list_bfd_neighbor, {neighbors} neighbors",
        "list_bfd_neighbor",
        lambda: {CLI: cli_samples.bfd_session(0)},
        sessions=neighbors,
        bounds={LOWER_BOUND: "rebuild", "deepcopy": "deepcopy"},
    )


def output(size: int, label: str, prompts: bool = False) -> Workload:
    """Run a command."""
    return Workload(
        name=f"get_cli_command_output, {label}" + (", with pager prompts" if prompts else ""),
        function="get_cli_command_output",
        replies=lambda: {CLI: cli_samples.output(size, prompts)},
        arguments=("get system arp",),
        bounds={} if prompts else {LOWER_BOUND: "get_cli_command_output"},
    )


def bridge(size: int, label: str, no_parse: bool = False) -> Workload:
    """Run a status query with a reply of about `size` bytes; 0 means the null reply."""

    def reply() -> object:
        if not size:
            return None
        ports = cli_samples.ports(size)
        return RawJSON(json.dumps(ports)) if no_parse else ports

    return Workload(
        name=f"bridge, {label}" + (", no-parse" if no_parse else ""),
        function="list_switch_lg_state",
        replies=lambda: {"build_switch_lg_state": reply()},
        bounds={LOWER_BOUND: "bridge", WITH_BYTES: "bridge_with_bytes"},
        calls=_SHORT_CALLS if no_parse or not size else 1,
        no_parse=no_parse,
    )


def query(name: str, function: str, service: str, *arguments: object, **options: Any) -> Workload:
    """Run a status query with arguments and the null reply."""
    return Workload(
        name=name,
        function=function,
        replies=lambda: {service: None},
        arguments=arguments,
        **options,
        calls=_SHORT_CALLS,
        compiled_only=True,
    )


def last_interface(entries: int) -> Workload:
    """Select the last of many entries of a reply."""
    names = [f"port{i}" for i in range(entries)]
    return Workload(
        name=f"list_system_interface_physical, the last of {entries:,}",
        function="list_system_interface_physical",
        replies=lambda: {
            "build_system_interface_physical": [{"interface": [{"name": name} for name in names]}]
        },
        arguments=(names[-1],),
        compiled_only=True,
    )


_COOKIES: Mapping[str, object] = {
    "aps_get_new_cookie_id": 4294967295,
    "__get_aps_hash": 3735928559,
    "gui_chk_cert_expiration": 0,
    "cookieval_wrap": "d3JhcHBlZCBjb29raWUgdmFsdWU",
}


def trivial(function: str, *arguments: object) -> Workload:
    """Call a function that does little more than call its native service."""
    return Workload(
        name=function,
        function=function,
        replies=lambda: _COOKIES,
        arguments=arguments,
        bounds={LOWER_BOUND: function, "empty": "empty_one" if arguments else "empty_none"},
        calls=_SHORT_CALLS,
    )


def binding(name: str, *arguments: object, keywords: tuple[str, ...] = ()) -> Workload:
    """Call a function with positional or keyword arguments; the output is empty."""
    return Workload(
        name=f"binding, {name}",
        function="get_bfd_neighbor",
        replies=lambda: {CLI: ""},
        arguments=arguments,
        keywords=keywords,
        bounds={"empty": "empty_keywords"},
        calls=_SHORT_CALLS,
        compiled_only=True,
    )


def failing(
    name: str,
    function: str,
    error: type[BaseException],
    *arguments: object,
    keywords: tuple[str, ...] = (),
) -> Workload:
    """Call a function that raises an exception."""
    return Workload(
        name=f"error, {name}",
        function=function,
        replies=lambda: {CLI: "no header\n"},
        arguments=arguments,
        keywords=keywords,
        raises=error,
        calls=_SHORT_CALLS,
        compiled_only=True,
    )


Parser = Callable[[int, Variant], Workload]
PARSERS: tuple[Parser, Parser, Parser] = (arp, routing, bfd)
SIZES = (1, 10, 30, 100, 1_000, 10_000, 100_000)
# The size to which most thresholds apply.
THRESHOLD_SIZE = 1_000
# Instructions are counted at these sizes. A device has tens of neighbors and a few routes.
COUNTED_SIZES = (1, 10, 30, THRESHOLD_SIZE)
# The template competitors take milliseconds per row.
MAX_ROWS = {"TextFSM": 1_000, "TTP": 1_000}

BRIDGES = [
    bridge(0, "null"),
    bridge(1_000, "1 kB"),
    bridge(4_000, "4 kB"),
    bridge(100_000, "100 kB"),
    bridge(5_000_000, "5 MB"),
]
NO_PARSE_BRIDGES = [bridge(1_000, "1 kB", no_parse=True), bridge(100_000, "100 kB", no_parse=True)]
LISTING = listing(10)
OUTPUT = output(100_000, "100 kB")
TRIVIAL = [
    trivial("new_cookie_id"),
    trivial("aps_unsigned_int_hash", b"SERIAL0000000000"),
    trivial("check_cert_expiration", b"/etc/cert/local/device.cer"),
    trivial("encrypt_cookie", b"0123456789abcdef"),
]
BINDING = [
    binding("one positional", "get router info bfd neighbor"),
    binding("two positional", "get router info bfd neighbor", {}),
    binding("by keyword", "get router info bfd neighbor", {}, keywords=("cmd", "list_bfd")),
]
ERRORS = [
    failing("wrong type", "get_cli_command_output", TypeError, 5),
    failing("too many arguments", "switch_acl_egress_counter", TypeError, 1, 2),
    failing("unknown keyword", "switch_acl_egress_counter", TypeError, 1, keywords=("policy",)),
    failing("no header", "get_system_arp_result", IndexError),
]
LAST_INTERFACE = last_interface(1_000)
_ACL = ("switch_acl_ingress_counter", "build_switch_acl_ingress_stats", 7)
_CAPTURE = ("capture_sniffer_profile", "build_stop_sniffer_profile_capture", "lan", "Stop")
QUERIES = [
    query("switch_acl_ingress_counter(7)", *_ACL),
    query("switch_acl_ingress_counter(policy_id=7)", *_ACL, keywords=("policy_id",)),
    query("capture_sniffer_profile", *_CAPTURE),
    LAST_INTERFACE,
]
OUTPUTS = [OUTPUT, output(100_000, "100 kB", prompts=True)]
CALLS = [*TRIVIAL, *BINDING, *ERRORS, *QUERIES]

TABLES = [parser(size, variant) for parser in PARSERS for variant in Variant for size in SIZES]
TIMED = [*TABLES, LISTING, *OUTPUTS, *BRIDGES, *NO_PARSE_BRIDGES, *CALLS]
# What the management interface calls for one page of a device.
PAGE = [arp(30, Variant.REPEATING), routing(5, Variant.REPEATING), listing(4), BRIDGES[2]]
# Under callgrind the largest reply would take minutes.
COUNTED = [
    *(table for table in TABLES if table.rows in COUNTED_SIZES),
    LISTING,
    *OUTPUTS,
    *BRIDGES[:4],
    *NO_PARSE_BRIDGES,
    *CALLS,
    *PAGE[1:3],
]
