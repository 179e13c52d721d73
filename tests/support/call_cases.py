"""Calls of every function: on success, and on every failure that a caller, a collaborator or the
appliance can provoke. For tests that repeat each of them or let memory fail within."""

from __future__ import annotations

import sys
from collections.abc import Mapping
from types import MappingProxyType, SimpleNamespace
from typing import Any, Callable, NamedTuple

import ujson

from tests.support.doubles import (
    AlwaysRaises,
    BrokenMapping,
    Failure,
    IntMakingException,
    MishashedStr,
    MissingKeyMapping,
    MissingKeyWithoutArgs,
    MissingKeyWithTwoArgs,
    NoTruthValue,
    NoTruthValueFile,
    NoTruthValuePath,
    NullLogger,
    ReadOnlyMapping,
    RepeatedKeyMapping,
    RightAddable,
    Stop,
    StoppingLogger,
    UncomparableStr,
    UnconstructibleException,
    UnreplaceableStr,
    fail,
    failing_open,
    failing_path,
    stop,
)
from tests.support.function_table import FUNCTIONS, NAMED
from tests.support.query_cases import QUERY_CASES
from veldarin_simulator import RawJSON, Simulator


class CallCase(NamedTuple):
    """A call that is repeated: what it raises, if anything, and how the device is prepared.

    `cli` is what the command line answers, `reply` what every bridged query is answered; `rebound`
    module globals are bound to these values, and those bound to `DELETED` are deleted.
    """

    function: str
    args: tuple[Any, ...] = ()
    kwargs: Mapping[Any, Any] = MappingProxyType({})
    error: type[BaseException] | None = None
    label: str = ""
    cli: object = "nothing"
    reply: object = None
    patched: Mapping[str, Any] = MappingProxyType({})
    create: int | None = None  # which creation of a JSONObject fails, counted from 0
    release: int | None = None  # which release of a JSONObject fails
    before: Callable[[Simulator], object] | None = None  # each call

    def __str__(self) -> str:
        return f"{self.function}-{self.label or self.args}"


DELETED = object()


UNBOUND = UnboundLocalError
ARGUMENT_CASES = [
    *(CallCase(row.name, (1,) * 7, {}, TypeError, "too many arguments") for row in FUNCTIONS),
    *(
        CallCase(row.name, (None,) * row.required, {"other": 1}, TypeError, "unknown keyword")
        for row in FUNCTIONS
    ),
    *(
        CallCase(row.name, (), {}, TypeError, "too few arguments")
        for row in FUNCTIONS
        if row.required
    ),
    *(
        CallCase(row.name, (), {b"bytes": 1}, TypeError, "keyword that is no string")
        for row in FUNCTIONS
        if row.kind == "keywords"
    ),
    *(
        CallCase(row.name, (None,), {row.parameters[0].name: 1}, TypeError, "bound twice")
        for row in FUNCTIONS
        if row.kind == "keywords"
    ),
    *(
        CallCase(row.name, (bytearray(b"value"),) * row.required, {}, TypeError, "wrong type")
        for row in FUNCTIONS
        if row.parameters and row.parameters[0].type
    ),
    *(
        CallCase(row.name, (None,), {}, TypeError, "None for bytes")
        for row in FUNCTIONS
        if row.parameters and row.parameters[0].type is bytes
    ),
    CallCase("capture_sniffer_profile", ("p", 5), {}, TypeError, "wrong type of the event"),
    CallCase("capture_sniffer_profile", ("p",), {"event": 5}, TypeError, "wrong type by keyword"),
    CallCase("capture_sniffer_profile", (), {"event": "Stop"}, TypeError, "missing by keyword"),
    CallCase(
        "list_switch_trunk_state",
        (),
        {UncomparableStr("trunk_name"): 1},
        Failure,
        "uncomparable keyword",
    ),
    CallCase("get_bfd_neighbor", (), {"list_bfd": {}}, TypeError, "missing by keyword"),
]

COOKIE_CASES = [
    CallCase("new_cookie_id"),
    CallCase("aps_unsigned_int_hash", (b"some\0text",)),
    CallCase("get_cookie_name", ([1],)),
    CallCase("get_cookie_name", ("",)),
    CallCase("get_cookie_name", (AlwaysRaises(),), {}, Failure, "truth fails"),
    *(
        CallCase("get_cookie_name", (1,), {}, Failure, f"{name} fails", patched={name: fail})
        for name in ("text_", "aps_unsigned_int_hash", "serial_number_ascii")
    ),
    *(
        CallCase("get_cookie_name", (1,), {}, NameError, f"{name} gone", patched={name: DELETED})
        for name in ("text_", "aps_unsigned_int_hash", "serial_number_ascii")
    ),
    *(
        CallCase(
            "get_cookie_name",
            (1,),
            {},
            TypeError,
            f"serial number {serial!r}",
            patched={"serial_number_ascii": lambda serial=serial: serial},
        )
        for serial in (None, "text", 5)
    ),
    CallCase("encrypt_cookie", (b"plain",)),
    CallCase("encrypt_cookie", (b"",)),
    CallCase("decrypt_cookie", (b"encrypted\0more",)),
    CallCase("decrypt_cookie", (b"x" * 5000,), label="long text"),
    CallCase("check_cert_expiration", (b"/certificate",)),
    CallCase(
        "check_cert_expiration",
        (b"/certificate",),
        label="expired",
        before=lambda simulator: simulator.set_reply("gui_chk_cert_expiration", 3),
    ),
]


def remove_secret(simulator: Simulator) -> None:
    if simulator.secret_path.exists():
        simulator.secret_path.unlink()


def write_secret(simulator: Simulator) -> None:
    simulator.secret_path.write_text(" secret \nmore")


def make_secret_directory(simulator: Simulator) -> None:
    simulator.secret_path.mkdir(exist_ok=True)


def token_case(
    label: str, error: type[BaseException] | None, before: Any = remove_secret, **patched: object
) -> CallCase:
    return CallCase("get_token", (), {}, error, label, patched=patched, before=before)


TOKEN_CASES = [
    token_case("file made", None),
    token_case("file read", None, write_secret),
    token_case("directory in its place", IsADirectoryError, make_secret_directory),
    *(
        token_case(f"{name} fails", Failure, **{name: fail})
        for name in ("text_", "Path", "open", "urandom", "hexlify")
    ),
    *(
        token_case(f"{name} gone", NameError, **{name: DELETED})
        for name in ("text_", "Path", "urandom", "hexlify")
    ),
    *(
        token_case(f"{name} fails", Failure, Path=failing_path(name))
        for name in ("is_file", "absolute")
    ),
    token_case("absolute fails on reading", Failure, write_secret, Path=failing_path("absolute")),
    token_case("truth of is_file fails", Failure, Path=NoTruthValuePath),
    *(
        token_case(f"{step} fails on writing", Failure, open=failing_open(step, "w"))
        for step in ("enter", "write", "exit")
    ),
    *(
        token_case(f"{step} fails on reading", Failure, open=failing_open(step, "r"))
        for step in ("enter", "readline", "exit")
    ),
    token_case(
        "writing fails and is swallowed", None, open=failing_open("write", "w", swallows=True)
    ),
    token_case(
        "reading fails and is swallowed", UNBOUND, open=failing_open("readline", "r", swallows=True)
    ),
    token_case("truth of exit fails", Failure, open=lambda path, how: NoTruthValueFile("readline")),
    token_case("open gives no context manager", AttributeError, open=lambda path, how: None),
    token_case("hexlify gives no bytes", AttributeError, hexlify=lambda random: "text"),
]

# What the interface query is answered, and what that leads to.
REPLIES: list[tuple[Any, type[Exception] | None]] = [
    (None, TypeError),
    (5, TypeError),
    ([], IndexError),
    ({}, KeyError),
    ([{}], KeyError),
    ([5], TypeError),
    ([{"interface": 5}], TypeError),
    ([{"interface": [5]}], TypeError),
    ([{"interface": [{}]}], KeyError),
    ([{"interface": []}], UNBOUND),
    ([{"interface": [{"name": "a"}, {"name": "b"}]}], None),
    ([{"interface": {"a": 1}}], TypeError),
]
# What json.loads may give instead, and what that leads to.
PARSED: list[tuple[str, Callable[[bytes], object]]] = [
    ("comparison fails", lambda text: [{"interface": [{"name": AlwaysRaises()}]}]),
    ("truth of comparison fails", lambda text: [{"interface": [{"name": NoTruthValue()}]}]),
    ("iteration fails", lambda text: [{"interface": map(fail, [1])}]),
]
QUERY_CALL_CASES = [
    *(
        CallCase(row.function, row.arguments, reply=row.reply, label=f"success {row.arguments}")
        for row in QUERY_CASES
    ),
    *(
        CallCase(
            row.function,
            row.arguments,
            {},
            Failure,
            f"creation {number} fails {row.arguments}",
            create=number,
        )
        for row in QUERY_CASES
        for number in (0, 1)
    ),
    *(
        CallCase(
            row.function,
            row.arguments,
            {},
            Failure,
            f"release {number} fails {row.arguments}",
            reply=row.reply,
            release=number,
        )
        for row in QUERY_CASES
        for number in (0, 1)
    ),
    *(
        CallCase(
            row.function,
            row.arguments,
            {},
            NameError,
            f"json gone {row.arguments}",
            reply=row.reply,
            patched={"json": DELETED},
        )
        for row in QUERY_CASES
    ),
    *(
        CallCase(
            row.function,
            row.arguments,
            {},
            Failure,
            f"loads gone {row.arguments}",
            reply=row.reply,
            patched={"json": AlwaysRaises()},
        )
        for row in QUERY_CASES
    ),
    *(
        CallCase(
            row.function,
            row.arguments,
            {},
            ujson.JSONDecodeError,
            f"no JSON {row.arguments}",
            reply=RawJSON("{oops"),
        )
        for row in QUERY_CASES
        if row.native
    ),
    *(
        CallCase(name, (AlwaysRaises(),), {}, Failure, "truth fails")
        for name in (
            "switch_acl_ingress_counter",
            "switch_acl_egress_counter",
            "switch_acl_prelookup_counter",
            "list_switch_trunk_state",
            "list_switch_mclag_list",
        )
    ),
    CallCase("switch_acl_ingress_counter", (), {"policy_id": "by keyword"}),
    CallCase("list_switch_trunk_state", (), {"trunk_name": "by keyword"}),
    CallCase(
        "list_switch_trunk_state", (), {MishashedStr("trunk_name"): "a"}, label="unfound keyword"
    ),
    CallCase(
        "list_switch_trunk_state",
        (),
        {"trunk_name": "a", MishashedStr("trunk_name"): "b"},
        label="keyword and its unfound equal",
    ),
    CallCase("list_switch_stp_state", (object(),), {}, TypeError, "request of no JSON type"),
    CallCase("capture_sniffer_profile", (), {"event": "Pause", "profile_name": None}),
    *(
        CallCase(
            "list_system_interface_physical", ("port1",), {}, error, f"reply {reply}", reply=reply
        )
        for reply, error in REPLIES
    ),
    *(
        CallCase(
            "list_system_interface_physical",
            ("port1",),
            {},
            Failure,
            label,
            patched={"json": SimpleNamespace(loads=loads)},
        )
        for label, loads in PARSED
    ),
]
ROUTING = """get router info routing-table detail 192.0.2.7\r
Routing entry for 192.0.2.0/24\r
  Known via static, distance 10, metric 0, best
  Last update 01:02:03 ago
  * 198.51.100.1, via port1

  directly connected, port2
"""
ARP = """Address Age Hardware Interface
192.0.2.10 0 02:00:00:aa:bb:cc port1

192.0.2.11 1 02:00:00:aa:bb:cd port1 vlan10
"""
WIDE = ARP.replace("port1", "p\u00f6rt").replace("vlan10", "\U0001f600")
CLI_ERRORS: list[tuple[str, type[Exception], dict[str, object]]] = [
    ("bytes_ fails", Failure, {"bytes_": fail}),
    ("bytes_ gives text", TypeError, {"bytes_": lambda text, charset: "text"}),
    ("bytes_ gone", NameError, {"bytes_": DELETED}),
    ("text_ fails", Failure, {"text_": fail}),
    ("text_ gives a number", AttributeError, {"text_": lambda data, charset: 5}),
    (
        "text_ gives text of its own",
        Failure,
        {"text_": lambda data, charset: UnreplaceableStr(data)},
    ),
    ("text_ gone", NameError, {"text_": DELETED}),
    ("_CHARSET gone", NameError, {"_CHARSET": DELETED}),
    ("_CHARSET unknown", LookupError, {"_CHARSET": "no such charset"}),
]


def select_lines(text: str, *numbers: int) -> str:
    """Some lines of a text."""
    split = text.split("\n")
    return "\n".join(split[number] for number in numbers)


def runner_returning(text: object) -> dict[str, object]:
    """A runner of the module's own whose text is anything."""
    return {"get_cli_command_output": lambda command: text}


CLI_CASES = [
    CallCase("get_cli_command_output", ("command",), cli="a--More--b\n"),
    CallCase("get_cli_command_output", ("command",), cli="", label="empty output"),
    CallCase("get_cli_command_output", ("ö" * 300,), label="long command"),
    CallCase("get_cli_command_output", (None,), {}, TypeError, "no command"),
    CallCase("get_cli_command_output", ("\ud800",), {}, UnicodeEncodeError, "unencodable command"),
    CallCase(
        "get_cli_command_output", ("c",), {}, UnicodeDecodeError, "bad output", cli=b"\xff\xfe"
    ),
    CallCase(
        "get_cli_command_output",
        ("c",),
        {},
        NameError,
        "no output, no error class",
        cli=None,
        patched={"CFunctionError": DELETED},
    ),
    CallCase(
        "get_cli_command_output",
        ("c",),
        {},
        Failure,
        "no output, failing class",
        cli=None,
        patched={"CFunctionError": fail},
    ),
    CallCase(
        "get_cli_command_output",
        ("c",),
        {},
        TypeError,
        "no output, no exception class",
        cli=None,
        patched={"CFunctionError": str},
    ),
    CallCase(
        "get_cli_command_output",
        ("c",),
        {},
        TypeError,
        "no output, a class that is no exception",
        cli=None,
        patched={"CFunctionError": lambda message: int},
    ),
    CallCase(
        "get_cli_command_output",
        ("c",),
        {},
        Failure,
        "no output",
        cli=None,
        patched={"CFunctionError": Failure},
    ),
    *(
        CallCase(
            "get_cli_command_output",
            ("c",),
            {},
            error,
            f"no output, {label}",
            cli=None,
            patched={"CFunctionError": lambda message, returned=returned: returned},
        )
        for label, error, returned in (
            ("returned exception class", Failure, Failure),
            ("returned class that fails", Failure, UnconstructibleException),
            ("returned class without instances", TypeError, IntMakingException),
        )
    ),
    *(
        CallCase("get_cli_command_output", ("command",), {}, error, label, patched=patched)
        for label, error, patched in CLI_ERRORS
    ),
    CallCase("get_routing_table_result", ("192.0.2.7",), cli=ROUTING),
    CallCase("get_routing_table_result", (None,), cli=WIDE + ROUTING, label="wide text"),
    CallCase(
        "get_routing_table_result", ("a",), cli=select_lines(ROUTING, 1, 2, 3), label="no routes"
    ),
    CallCase("get_routing_table_result", ("a",), cli=ROUTING + "10.0.0.1, port1", label="one word"),
    *(
        CallCase(
            "get_routing_table_result",
            ("a",),
            {},
            IndexError,
            f"lines {numbers} + {more!r}",
            cli=select_lines(ROUTING, *numbers) + more,
        )
        for numbers, more in [
            ((0,), ""),
            ((1,), ""),
            ((1, 2), ""),
            ((), "Routing"),
            ((1, 0, 3), ""),
            ((1, 2, 5), ""),
            ((1, 2, 3, 4), "\nno comma"),
            ((1, 2, 3, 4), "\n ,port1"),
            ((1, 2, 3, 4, 6), "\nword,"),
            ((1,), "\na, b, c, d\nx y z"),
            ((1,), "\na, b c, d, e"),
        ]
    ),
    *(
        CallCase("get_routing_table_result", ("a",), {}, error, label, patched=patched)
        for label, error, patched in CLI_ERRORS
    ),
    CallCase("get_system_arp_result", cli=ARP),
    CallCase("get_system_arp_result", cli=WIDE, label="wide text"),
    CallCase(
        "get_system_arp_result", cli=f"{ARP}a b c {'d' * 40} {'e' * 40}\n", label="long words"
    ),
    *(
        CallCase("get_system_arp_result", (), {}, IndexError, f"{text!r}", cli=text)
        for text in ("", "no header", ARP + "too few columns", ARP + "two words\n", ARP + "one")
    ),
    *(
        CallCase("get_system_arp_result", (), {}, error, label, patched=patched)
        for label, error, patched in CLI_ERRORS
    ),
    *(
        CallCase(
            name,
            ("a",) * NAMED[name].required,
            {},
            error,
            f"runner gives {what}",
            patched=runner_returning(text),
        )
        for name in ("get_routing_table_result", "get_system_arp_result")
        for what, text, error in [
            ("a number", 5, AttributeError),
            ("None", None, AttributeError),
            ("bad bytes", b"\xff", UnicodeDecodeError),
            ("what fails", SimpleNamespace(split=fail, replace=fail), Failure),
            ("what is no text", SimpleNamespace(split=NullLogger, replace=NullLogger), TypeError),
        ]
    ),
    *(
        CallCase(
            name,
            ("a",) * NAMED[name].required,
            {},
            Failure,
            "runner fails",
            patched={"get_cli_command_output": fail},
        )
        for name in ("get_routing_table_result", "get_system_arp_result", "get_bfd_neighbor")
    ),
    *(
        CallCase(
            name,
            ("a",) * NAMED[name].required,
            {},
            NameError,
            "runner gone",
            patched={"get_cli_command_output": DELETED},
        )
        for name in ("get_routing_table_result", "get_system_arp_result", "get_bfd_neighbor")
    ),
]

ONE_SESSION = """echo
peer 192.0.2.1 interface port1
\tLocal Diag: 0
  Packets received: 52 packets
\tZebra Notifications: 2
\tLocal timers
\t\tDetect Multiplier: 3
\t\tReceive Interval: 250
\t\tTransmit Interval: 250
\tRemote timers
\t\tDetect Multiplier: 3
\t\tReceive Interval: 250
\t\tTransmit Interval: 250
"""
TWO_SESSIONS = ONE_SESSION + ONE_SESSION.replace("echo\n", "").replace("port1", "port2")


def with_sessions(sessions: Any) -> dict[str, object]:
    return {"get_bfd_neighbor": lambda *given: sessions, "_logger": NullLogger()}


def with_details(sessions: Any) -> dict[str, object]:
    """Queries whose details are other than the summaries."""
    return {"get_bfd_neighbor": lambda cmd, *given: sessions if given else SESSIONS, **QUIET}


def with_copy(known: Callable[[object], object]) -> dict[str, object]:
    """Deep copies of the sessions that are something else."""
    return {**with_sessions(SESSIONS), "copy": SimpleNamespace(deepcopy=known)}


def delete_query(sessions: object) -> object:
    """A deep copy that makes the module lose its query."""
    vars(sys.modules["veldarin.modules.modules_util"]).pop("get_bfd_neighbor", None)
    return sessions


def restore_query(simulator: Simulator) -> None:
    vars(simulator.module)["get_bfd_neighbor"] = with_sessions(SESSIONS)["get_bfd_neighbor"]


NAME = "192.0.2.1_port1"  # of ONE_SESSION
SESSIONS = {"s": {"neighbor_ip": "192.0.2.1", "interface": "port1", "zebra_notifications": "1"}}
QUIET = {"_logger": NullLogger()}
BFD_CASES = [
    CallCase("get_bfd_neighbor", ("c",), label="no session"),
    CallCase("get_bfd_neighbor", ("c",), cli=ONE_SESSION, label="one session, shared default"),
    CallCase("get_bfd_neighbor", ("c", {}), cli=ONE_SESSION, label="one session"),
    CallCase(
        "get_bfd_neighbor", (), {"cmd": "c", "list_bfd": {}}, cli=ONE_SESSION, label="by keyword"
    ),
    CallCase("get_bfd_neighbor", ("c", {}), cli="objname\n" + ONE_SESSION, label="objname"),
    CallCase("get_bfd_neighbor", ("c", {}), cli=TWO_SESSIONS, label="two sessions", patched=QUIET),
    CallCase(
        "get_bfd_neighbor", ("c", {}), cli=ONE_SESSION + "größe: \U0001f600", label="wide text"
    ),
    CallCase(
        "get_bfd_neighbor",
        ("c", {}),
        cli="echo\npeer \npeer 1\na: b: c\npeer 1 2 3\nd:e",
        label="broken headers",
        patched=QUIET,
    ),
    CallCase(
        "get_bfd_neighbor", ("c", {}), cli=ONE_SESSION[:-60], label="broken timers", patched=QUIET
    ),
    CallCase(
        "get_bfd_neighbor",
        ("c", {}),
        {},
        Stop,
        "logger stops",
        cli=TWO_SESSIONS,
        patched={"_logger": StoppingLogger()},
    ),
    CallCase(
        "get_bfd_neighbor",
        ("c", {}),
        {},
        NameError,
        "logger gone",
        cli=TWO_SESSIONS,
        patched={"_logger": DELETED},
    ),
    CallCase(
        "get_bfd_neighbor",
        ("c", {}),
        {},
        AttributeError,
        "no logger",
        cli=TWO_SESSIONS,
        patched={"_logger": None},
    ),
    CallCase(
        "get_bfd_neighbor", ("c", {NAME: {"old": "1"}}), cli=ONE_SESSION, label="session known"
    ),
    CallCase(
        "get_bfd_neighbor",
        ("c", BrokenMapping()),
        {},
        Failure,
        "sessions not given",
        cli=ONE_SESSION,
    ),
    CallCase(
        "get_bfd_neighbor",
        ("c", ReadOnlyMapping()),
        {},
        Failure,
        "sessions not taken",
        cli=ONE_SESSION,
    ),
    CallCase(
        "get_bfd_neighbor",
        ("c", {}),
        {},
        TypeError,
        "runner gives a list",
        patched=runner_returning(["peer"]),
    ),
    CallCase("get_bfd_neighbor", ("c", 5), {}, TypeError, "no dictionary", cli=ONE_SESSION),
    CallCase(
        "get_bfd_neighbor",
        ("c", AlwaysRaises()),
        {},
        Failure,
        "failing dictionary",
        cli=ONE_SESSION,
    ),
    CallCase(
        "get_bfd_neighbor",
        ("c", {NAME: 5}),
        {},
        TypeError,
        "no session known",
        cli=ONE_SESSION,
    ),
    *(
        CallCase("get_bfd_neighbor", ("c", {}), {}, error, label, cli=ONE_SESSION, patched=patched)
        for label, error, patched in CLI_ERRORS
    ),
    CallCase(
        "get_bfd_neighbor",
        ("c", {}),
        {},
        TypeError,
        "runner gives a number",
        patched=runner_returning(5),
    ),
    CallCase(
        "get_bfd_neighbor",
        ("c", {}),
        label="runner gives a sum",
        patched=runner_returning(RightAddable(ONE_SESSION)),
    ),
    CallCase(
        "get_bfd_neighbor", ("c", {}), label="tabs within", cli=ONE_SESSION.replace(": ", ":\t")
    ),
    CallCase("get_bfd_neighbor", ("c", {}), label="one line", cli="peer", patched=QUIET),
    CallCase(
        "get_bfd_neighbor",
        ("c", {}),
        label="long field",
        cli=f"{ONE_SESSION}{'K' * 80}: {'v' * 80}",
    ),
    CallCase(
        "get_bfd_neighbor",
        ("c", {}),
        label="timers that need room",
        cli=ONE_SESSION.replace("\tZebra Notifications: 2\n", ""),
    ),
    CallCase("list_bfd_neighbor", label="no sessions"),
    CallCase("list_bfd_neighbor", cli=ONE_SESSION, label="one session"),
    CallCase("list_bfd_neighbor", cli=TWO_SESSIONS, label="two sessions", patched=QUIET),
    CallCase("list_bfd_neighbor", patched=with_sessions(SESSIONS), label="given sessions"),
    CallCase("list_bfd_neighbor", patched=with_sessions({"s": {}}), label="no address"),
    CallCase(
        "list_bfd_neighbor",
        patched=with_sessions({"s": {"neighbor_ip": 1, "interface": 2}}),
        label="address of no text",
    ),
    CallCase("list_bfd_neighbor", patched=with_sessions(5), label="no mapping"),
    CallCase("list_bfd_neighbor", patched=with_sessions({5: {}}), label="key of no text"),
    CallCase(
        "list_bfd_neighbor",
        patched=with_sessions(MissingKeyMapping()),
        label="mapping lost its keys",
    ),
    CallCase(
        "list_bfd_neighbor",
        patched=with_sessions(RepeatedKeyMapping()),
        label="mapping repeats a key",
    ),
    CallCase(
        "list_bfd_neighbor",
        patched={**with_sessions(SESSIONS), "copy": AlwaysRaises()},
        label="copy fails",
    ),
    CallCase(
        "list_bfd_neighbor", patched={**with_sessions(SESSIONS), "copy": DELETED}, label="copy gone"
    ),
    *(
        CallCase("list_bfd_neighbor", patched=patched, label=label)
        for label, patched in [
            ("details lose the session", with_details({})),
            ("details are no session", with_details({"s": 5})),
            ("no details", with_details(None)),
            ("copy has other keys", with_copy(lambda sessions: ["x"])),
            ("copy fails on the way", with_copy(lambda sessions: map(fail, [1]))),
        ]
    ),
    CallCase("list_bfd_neighbor", patched={**QUIET, "get_bfd_neighbor": fail}, label="query fails"),
    CallCase(
        "list_bfd_neighbor", patched={**QUIET, "get_bfd_neighbor": DELETED}, label="query gone"
    ),
    CallCase("list_bfd_neighbor", (), {}, Stop, "query stops", patched={"get_bfd_neighbor": stop}),
    CallCase(
        "list_bfd_neighbor",
        (),
        {},
        Stop,
        "logger stops",
        patched={"get_bfd_neighbor": fail, "_logger": StoppingLogger()},
    ),
    CallCase(
        "list_bfd_neighbor",
        (),
        {},
        NameError,
        "logger gone",
        patched={"get_bfd_neighbor": fail, "_logger": DELETED},
    ),
    CallCase("list_bfd_neighbor", cli=None, patched=QUIET, label="no output"),
]

# Texts are scanned by the width of their characters. Each of these makes one of another width where
# the parsers pass over it: a line before the table, or the first line of sessions.
WIDTHS = {"latin": "\u00f6\n", "two bytes": "\u0142\n", "four bytes": "\U0001f600\n"}


def with_width(case: CallCase, width: str) -> CallCase:
    """The case with a text of another width."""
    before = WIDTHS[width]
    if case.function == "get_bfd_neighbor":
        before = before.strip()
    assert isinstance(case.cli, str)
    return case._replace(cli=before + case.cli, label=f"{case.label or case.args} in {width}")


PARSERS = ("get_routing_table_result", "get_system_arp_result", "get_bfd_neighbor")
WIDE_CASES = [
    with_width(case, width)
    for case in (*CLI_CASES, *BFD_CASES)
    if case.function in PARSERS and isinstance(case.cli, str) and case.cli != "nothing"
    for width in WIDTHS
]

CASES = [
    *ARGUMENT_CASES,
    *COOKIE_CASES,
    *TOKEN_CASES,
    *QUERY_CALL_CASES,
    *CLI_CASES,
    *BFD_CASES,
    *(case for case in WIDE_CASES if case.error is None and not case.patched),
]
# These are repeated only. Where memory fails, wide texts do what those before do; and the functions
# that raise as C does have no memory to be called. The last one changes the module itself.
REPEATED_ONLY = [
    *(case for case in WIDE_CASES if case.error is not None or case.patched),
    CallCase(
        "list_bfd_neighbor", patched=with_sessions(MissingKeyWithoutArgs()), label="nothing said"
    ),
    CallCase(
        "list_bfd_neighbor", patched=with_sessions(MissingKeyWithTwoArgs()), label="more said"
    ),
    CallCase(
        "list_bfd_neighbor",
        patched={**with_sessions(SESSIONS), "copy": SimpleNamespace(deepcopy=delete_query)},
        label="query lost on the way",
        before=restore_query,
    ),
]
