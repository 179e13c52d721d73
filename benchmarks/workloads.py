"""What is measured: rows of calls, each with the native replies that are canned for it and the
floors it is compared with. Figures are per row of the table that is parsed, or per call."""

from __future__ import annotations

import json
from collections.abc import Callable, Mapping
from dataclasses import dataclass, field
from typing import Any

from benchmarks import cli_samples
from benchmarks.cli_samples import Variant
from veldarin_simulator import RawJSON

CLI = "get_cli_cmd_output"
NEIGHBORS = 10
FLOOR = "floor"
READY = "floor, bytes ready"

_SHORT = 100  # calls of a function that ends soon


@dataclass(frozen=True)
class Workload:
    """One function, called in one way.

    `rows`: what the figures are divided by. `replies`: canned per native service, made when the
    workload is prepared. `floors`: functions of the floor module by the name that their figures
    have; "rebuild…" and "deepcopy" are given what the call returned, the others what the call is
    given. `merges`: the last argument is a dictionary that the call fills; it is emptied before
    every call. `sessions`: BFD sessions that are known from earlier calls. `fails`: the exception
    that every call ends in. `calls`: how many make up the smaller count of instructions.
    `compiled`: only the compiled modules have the parameters, and the errors, in question. `bare`:
    replies are rendered from ready text and not parsed, so that little is left but the exchange.
    """

    name: str
    function: str
    replies: Callable[[], Mapping[str, object]] = dict
    arguments: tuple[Any, ...] = ()
    keywords: tuple[str, ...] = ()
    rows: int = 1
    floors: Mapping[str, str] = field(default_factory=dict)
    merges: bool = False
    sessions: int = 0
    fails: type[BaseException] | None = None
    calls: int = 1
    compiled: bool = False
    bare: bool = False


def arp(rows: int, variant: Variant) -> Workload:
    """The ARP table."""
    return Workload(
        name=f"ARP, {rows:,} rows, {variant.value}",
        function="get_system_arp_result",
        replies=lambda: {CLI: cli_samples.arp(rows, variant)},
        rows=rows,
        floors={FLOOR: "rebuild"},
    )


def routing(rows: int, variant: Variant) -> Workload:
    """The routing table."""
    return Workload(
        name=f"routing, {rows:,} routes, {variant.value}",
        function="get_routing_table_result",
        replies=lambda: {CLI: cli_samples.routing(rows, variant)},
        arguments=("192.0.2.7",),
        rows=rows,
        floors={FLOOR: "rebuild"},
    )


def bfd(rows: int, variant: Variant) -> Workload:
    """BFD sessions; `rows` are lines with a key."""
    return Workload(
        name=f"BFD, {rows:,} key lines, {variant.value}",
        function="get_bfd_neighbor",
        replies=lambda: {CLI: cli_samples.bfd(rows, variant)},
        arguments=("get router info bfd neighbor", {}),
        rows=rows,
        floors={FLOOR: "rebuild", "floor, keys too": "rebuild_with_keys"},
        merges=True,
    )


def listing() -> Workload:
    """All BFD neighbors. Every command is answered with the same text.

    "deepcopy" is the part of the work that the interpreter's `copy` does, on as many sessions.
    """
    return Workload(
        name=f"list_bfd_neighbor, {NEIGHBORS} neighbors",
        function="list_bfd_neighbor",
        replies=lambda: {CLI: cli_samples.bfd_session(0)},
        sessions=NEIGHBORS,
        floors={FLOOR: "rebuild", "deepcopy": "deepcopy"},
    )


def output(size: int, label: str, prompts: bool = False) -> Workload:
    """The command runner alone."""
    return Workload(
        name=f"get_cli_command_output, {label}" + (", with pager prompts" if prompts else ""),
        function="get_cli_command_output",
        replies=lambda: {CLI: cli_samples.output(size, prompts)},
        arguments=("get system arp",),
        floors={} if prompts else {FLOOR: "get_cli_command_output"},
    )


def bridge(size: int, label: str, bare: bool = False) -> Workload:
    """A status query with a reply of about `size` bytes; 0 is the null reply."""

    def reply() -> object:
        if not size:
            return None
        return RawJSON(json.dumps(cli_samples.ports(size))) if bare else cli_samples.ports(size)

    return Workload(
        name=f"bridge, {label}" + (", bare" if bare else ""),
        function="list_switch_lg_state",
        replies=lambda: {"build_switch_lg_state": reply()},
        floors={FLOOR: "bridge", READY: "bridge_with_bytes"},
        calls=_SHORT if bare or not size else 1,
        bare=bare,
    )


_COOKIES: Mapping[str, object] = {
    "aps_get_new_cookie_id": 4294967295,
    "__get_aps_hash": 3735928559,
    "gui_chk_cert_expiration": 0,
    "cookieval_wrap": "d3JhcHBlZCBjb29raWUgdmFsdWU",
}


def trivial(function: str, *arguments: object) -> Workload:
    """A call that is little more than the native service it stands for."""
    return Workload(
        name=function,
        function=function,
        replies=lambda: _COOKIES,
        arguments=arguments,
        floors={FLOOR: function, "empty": "empty_one" if arguments else "empty_none"},
        calls=_SHORT,
    )


def binding(name: str, *arguments: object, keywords: tuple[str, ...] = ()) -> Workload:
    """A call that finds nothing to parse, given its parameters in one way or another."""
    return Workload(
        name=f"binding, {name}",
        function="get_bfd_neighbor",
        replies=lambda: {CLI: ""},
        arguments=arguments,
        keywords=keywords,
        floors={"empty": "empty_keywords"},
        calls=_SHORT,
        compiled=True,
    )


def failing(name: str, function: str, error: type[BaseException], *arguments: object) -> Workload:
    """A call that ends in an exception."""
    return Workload(
        name=f"error, {name}",
        function=function,
        replies=lambda: {CLI: "no header\n"},
        arguments=arguments,
        fails=error,
        calls=_SHORT,
        compiled=True,
    )


Parser = Callable[[int, Variant], Workload]
PARSERS: tuple[Parser, Parser, Parser] = (arp, routing, bfd)
SIZES = (10, 100, 1_000, 10_000, 100_000)
# The goals are set for tables of this size; instructions are counted there.
GOAL_SIZE = 1_000
# Those who take milliseconds a row are not asked for more.
MOST_ROWS = {"TextFSM": 1_000, "TTP": 1_000}

BRIDGES = [
    bridge(0, "null"),
    bridge(1_000, "1 kB"),
    bridge(100_000, "100 kB"),
    bridge(5_000_000, "5 MB"),
]
BARE_BRIDGES = [bridge(1_000, "1 kB", bare=True), bridge(100_000, "100 kB", bare=True)]
LISTING = listing()
OUTPUT = output(100_000, "100 kB")
TRIVIAL = [
    trivial("new_cookie_id"),
    trivial("aps_unsigned_int_hash", b"FSW0000000000000"),
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
    failing("no header", "get_system_arp_result", IndexError),
]
OUTPUTS = [OUTPUT, output(100_000, "100 kB", prompts=True)]
CALLS = [*TRIVIAL, *BINDING, *ERRORS]

TABLES = [parser(size, variant) for parser in PARSERS for variant in Variant for size in SIZES]
TIMED = [*TABLES, LISTING, *OUTPUTS, *BRIDGES, *BARE_BRIDGES, *CALLS]
# The largest reply takes callgrind minutes.
COUNTED = [
    *(table for table in TABLES if table.rows == GOAL_SIZE),
    LISTING,
    *OUTPUTS,
    *BRIDGES[:3],
    *BARE_BRIDGES,
    *CALLS,
]
