"""The cases: successful calls of every function, and a call for every failure that the caller, a
function that the module calls, or the appliance can cause.

The leak tests and the soak test repeat the calls; fault injection makes their allocations fail.
"""

from __future__ import annotations

import sys
from collections.abc import Iterator, Mapping
from types import MappingProxyType, ModuleType, SimpleNamespace
from typing import Any, Callable, NamedTuple

import pytest
import ujson

from tests.support.doubles import (
    AlwaysRaises,
    BrokenMapping,
    FailNth,
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
from tests.support.function_table import FUNCTIONS
from tests.support.query_cases import QUERY_CASES
from veldarin_simulator import RawJSON, Simulator


class CallCase(NamedTuple):
    """A call, the exception that it raises, if any, and the preparation of the simulator.

    Every command prints `cli`, and every native query returns `reply`. `patched` has new values for
    globals of the module; the value `DELETED` deletes the global.
    """

    function: str
    args: tuple[Any, ...] = ()
    error: type[BaseException] | None = None
    label: str = ""
    kwargs: Mapping[Any, Any] = MappingProxyType({})
    cli: object = "nothing"  # no table, no session
    reply: object = None
    patched: Mapping[str, Any] = MappingProxyType({})
    create: int | None = None  # the creation of a JSONObject that fails, counted from 0
    release: int | None = None  # the release of a JSONObject that fails, counted from 0
    before: Callable[[Simulator], object] | None = None  # runs before each call
    suppresses: bool = False  # a context manager of the call suppresses every exception

    def __str__(self) -> str:
        return f"{self.function}-{self.label or self.args}"


DELETED = object()
TRUNK, INTERFACE = "list_switch_trunk_state", "list_system_interface_physical"


def argument_cases() -> Iterator[CallCase]:
    """Yield calls of each function with arguments that it rejects."""
    for row in FUNCTIONS:
        required, first = (None,) * row.required, [*row.parameters][:1]
        yield CallCase(row.name, (1,) * 7, TypeError, "too many arguments")  # none takes so many
        yield CallCase(row.name, required, TypeError, "unknown keyword", {"other": 1})
        if required:
            yield CallCase(row.name, (), TypeError, "too few arguments")
        if row.kind == "keywords":
            not_str = "keyword that is not a string"
            yield CallCase(row.name, (), TypeError, not_str, {b"bytes": 1})
            yield CallCase(row.name, (None,), TypeError, "bound twice", {first[0].name: 1})
        if first and first[0].type:
            yield CallCase(row.name, (bytearray(b"value"),) * row.required, TypeError, "wrong type")
        if first and first[0].type is bytes:
            yield CallCase(row.name, (None,), TypeError, "None for bytes")


ARGUMENT_CASES = [
    *argument_cases(),
    CallCase("capture_sniffer_profile", ("p", 5), TypeError, "wrong type of the event"),
    CallCase("capture_sniffer_profile", ("p",), TypeError, "wrong type by keyword", {"event": 5}),
    CallCase("capture_sniffer_profile", (), TypeError, "missing by keyword", {"event": "Stop"}),
    CallCase(TRUNK, (), Failure, "uncomparable keyword", {UncomparableStr("trunk_name"): 1}),
    CallCase("get_bfd_neighbor", (), TypeError, "missing by keyword", {"list_bfd": {}}),
    CallCase("get_bfd_neighbor", (), TypeError, "missing beside unknown keyword", {"other": 1}),
]

COOKIE_CASES = [
    CallCase("new_cookie_id"),
    CallCase("aps_unsigned_int_hash", (b"some\0text",)),
    CallCase("get_cookie_name", ([1],)),
    CallCase("get_cookie_name", ("",)),
    CallCase("get_cookie_name", (AlwaysRaises(),), Failure, "truth test fails"),
    *(
        CallCase("get_cookie_name", (1,), error, f"{name} {label}", patched={name: value})
        for name in ("text_", "aps_unsigned_int_hash", "serial_number_ascii")
        for error, label, value in ((Failure, "fails", fail), (NameError, "deleted", DELETED))
    ),
    *(
        CallCase(
            *("get_cookie_name", (1,), TypeError, f"serial number {serial!r}"),
            patched={"serial_number_ascii": lambda serial=serial: serial},
        )
        for serial in (None, "text", 5)
    ),
    CallCase("encrypt_cookie", (b"plain",)),
    CallCase("encrypt_cookie", (b"",)),
    CallCase("decrypt_cookie", (b"encrypted\0more",)),
    CallCase("decrypt_cookie", (b"x" * 5000,), label="long text"),
    CallCase("check_cert_expiration", (b"/certificate",)),
    CallCase("check_cert_expiration", (b"/certificate",), label="expired")._replace(
        before=lambda simulator: simulator.set_reply("gui_chk_cert_expiration", 3)
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
    """Return a case of `get_token`."""
    return CallCase("get_token", (), error, label, patched=patched, before=before)


TOKEN_CASES = [
    token_case("file created", None),
    token_case("file read", None, write_secret),
    token_case("directory in its place", IsADirectoryError, make_secret_directory),
    *(
        token_case(f"{name} fails", Failure, **{name: fail})
        for name in ("text_", "Path", "open", "urandom", "hexlify")
    ),
    *(
        token_case(f"{name} deleted", NameError, **{name: DELETED})
        for name in ("text_", "Path", "urandom", "hexlify")
    ),
    *(
        token_case(f"{name} fails", Failure, Path=failing_path(name))
        for name in ("is_file", "absolute")
    ),
    token_case("absolute fails on reading", Failure, write_secret, Path=failing_path("absolute")),
    token_case("truth test of is_file fails", Failure, Path=NoTruthValuePath),
    *(
        token_case(f"{step} fails on writing", Failure, open=failing_open(step, "w"))
        for step in ("enter", "write", "exit")
    ),
    *(
        token_case(f"{step} fails on reading", Failure, open=failing_open(step, "r"))
        for step in ("enter", "readline", "exit")
    ),
    token_case(
        "writing fails and is suppressed", None, open=failing_open("write", "w", suppresses=True)
    )._replace(suppresses=True),
    token_case(
        *("reading fails and is suppressed", UnboundLocalError),
        open=failing_open("readline", "r", suppresses=True),
    )._replace(suppresses=True),
    token_case(
        *("truth test of exit fails", Failure),
        open=lambda path, how: NoTruthValueFile("readline"),
    ),
    token_case("open returns None", AttributeError, open=lambda path, how: None),
    token_case("hexlify returns a str", AttributeError, hexlify=lambda random: "text"),
]


def query_calls(
    label: str, error: type[BaseException] | None = None, cases: Any = QUERY_CASES, **fields: Any
) -> list[CallCase]:
    """Return a call case for each query case; `fields` may replace its reply."""
    return [
        CallCase(
            case.function,
            case.arguments,
            error,
            f"{label} {case.arguments}",
            **{"reply": case.reply, **fields},
        )
        for case in cases
    ]


# Replies to the interface query, and the exception that each causes.
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
    ([{"interface": []}], UnboundLocalError),
    ([{"interface": [{"name": "a"}, {"name": "b"}]}], None),
    ([{"interface": {"a": 1}}], TypeError),
]
NATIVE = [case for case in QUERY_CASES if case.native]
QUERY_CALL_CASES = [
    *query_calls("success"),
    *query_calls("creation 0 fails", Failure, reply=None, create=0),
    *query_calls("creation 1 fails", Failure, reply=None, create=1),
    *query_calls("release 0 fails", Failure, release=0),
    *query_calls("release 1 fails", Failure, release=1),
    *query_calls("json deleted", NameError, patched={"json": DELETED}),
    *query_calls("lookup of loads fails", Failure, patched={"json": AlwaysRaises()}),
    *query_calls("reply is not JSON", ujson.JSONDecodeError, NATIVE, reply=RawJSON("{oops")),
    *(
        CallCase(row.name, (AlwaysRaises(),), Failure, "truth test fails")
        for row in FUNCTIONS
        if row.parameters and row.required == 0
    ),
    CallCase("switch_acl_ingress_counter", (), kwargs={"policy_id": "by keyword"}),
    CallCase(TRUNK, (), kwargs={"trunk_name": "by keyword"}),
    CallCase(TRUNK, (), None, "keyword that the lookup misses", {MishashedStr("trunk_name"): "a"}),
    CallCase(
        *(TRUNK, (), None, "keyword and an equal one that the lookup misses"),
        {"trunk_name": "a", MishashedStr("trunk_name"): "b"},
    ),
    CallCase("list_switch_stp_state", (object(),), TypeError, "request that is not a JSON type"),
    CallCase("capture_sniffer_profile", (), kwargs={"event": "Pause", "profile_name": None}),
    *(
        CallCase(INTERFACE, ("port1",), error, f"reply {reply}", reply=reply)
        for reply, error in REPLIES
    ),
    *(
        CallCase(
            *(INTERFACE, ("port1",), Failure, label),
            patched={
                "json": SimpleNamespace(loads=lambda text, make=make: [{"interface": make()}])
            },
        )
        for label, make in [
            ("comparison fails", lambda: [{"name": AlwaysRaises()}]),
            ("truth test of comparison fails", lambda: [{"name": NoTruthValue()}]),
            ("iteration fails", lambda: map(fail, [1])),
        ]
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
WIDE_ARP = ARP.replace("port1", "p\u00f6rt").replace("vlan10", "\U0001f600")
CLI_ERRORS: list[tuple[str, type[Exception], dict[str, Any]]] = [
    ("bytes_ fails", Failure, {"bytes_": fail}),
    ("bytes_ returns a str", TypeError, {"bytes_": lambda text, charset: "text"}),
    ("bytes_ deleted", NameError, {"bytes_": DELETED}),
    ("text_ fails", Failure, {"text_": fail}),
    ("text_ returns an int", AttributeError, {"text_": lambda data, charset: 5}),
    (
        "text_ returns a str whose replace fails",
        Failure,
        {"text_": lambda data, charset: UnreplaceableStr(data)},
    ),
    ("text_ deleted", NameError, {"text_": DELETED}),
    ("_CHARSET deleted", NameError, {"_CHARSET": DELETED}),
    ("_CHARSET unknown", LookupError, {"_CHARSET": "no such charset"}),
]


def select_lines(text: str, *numbers: int) -> str:
    """Return some lines of a text."""
    split = text.split("\n")
    return "\n".join(split[number] for number in numbers)


def runner_returning(text: object) -> dict[str, Any]:
    """Replace the command runner with a function that returns `text`, any object."""
    return {"get_cli_command_output": lambda command: text}


class OddOutput:
    """Has the methods that the parsers call, which do not return a str."""

    def split(self, *arguments: object) -> object:
        """Return a tuple."""
        return arguments

    replace = split


FAILING_OUTPUT = SimpleNamespace(split=fail, replace=fail)  # has them, too
RUNNER_ERRORS: list[tuple[str, type[Exception], dict[str, Any]]] = [
    ("runner fails", Failure, {"get_cli_command_output": fail}),
    ("runner deleted", NameError, {"get_cli_command_output": DELETED}),
    ("runner returns an object without str results", TypeError, runner_returning(OddOutput())),
]
# Not for `get_bfd_neighbor`, which raises other exceptions for these; BFD_CASES has its cases.
TABLE_RUNNER_ERRORS: list[tuple[str, type[Exception], dict[str, Any]]] = [
    ("runner returns an int", AttributeError, runner_returning(5)),
    ("runner returns None", AttributeError, runner_returning(None)),
    ("runner returns bytes that are not UTF-8", UnicodeDecodeError, runner_returning(b"\xff")),
    ("runner returns an object whose methods fail", Failure, runner_returning(FAILING_OUTPUT)),
]


def routing(
    label: str, error: type[BaseException] | None = None, cli: object = "nothing", **patched: object
) -> CallCase:
    """Return a case of `get_routing_table_result`."""
    return CallCase("get_routing_table_result", ("a",), error, label, cli=cli, patched=patched)


def arp(
    label: str, error: type[BaseException] | None = None, cli: object = "nothing", **patched: object
) -> CallCase:
    """Return a case of `get_system_arp_result`."""
    return CallCase("get_system_arp_result", (), error, label, cli=cli, patched=patched)


CLI_CASES = [
    CallCase("get_cli_command_output", ("command",), cli="a--More--b\n"),
    CallCase("get_cli_command_output", ("command",), cli="", label="empty output"),
    CallCase("get_cli_command_output", ("ö" * 300,), label="long command"),
    CallCase("get_cli_command_output", (None,), TypeError, "None as the command"),
    CallCase("get_cli_command_output", ("\ud800",), UnicodeEncodeError, "unencodable command"),
    CallCase("get_cli_command_output", ("c",), UnicodeDecodeError, "bad output", cli=b"\xff\xfe"),
    *(
        CallCase(
            *("get_cli_command_output", ("c",), error, f"no output{label}"),
            cli=None,
            patched={"CFunctionError": value},
        )
        for label, error, value in [
            (", error class deleted", NameError, DELETED),
            (", error class fails", Failure, fail),
            (", str as the error class", TypeError, str),
            (", error class returns int", TypeError, lambda message: int),
            ("", Failure, Failure),
            (", error class returns a class", Failure, lambda message: Failure),
            (", returned class that fails", Failure, lambda message: UnconstructibleException),
            (", returned class without instances", TypeError, lambda message: IntMakingException),
        ]
    ),
    *(
        CallCase("get_cli_command_output", ("command",), error, label, patched=patched)
        for label, error, patched in CLI_ERRORS
    ),
    CallCase("get_routing_table_result", ("192.0.2.7",), cli=ROUTING),
    CallCase("get_routing_table_result", (None,), cli=WIDE_ARP + ROUTING, label="wide text"),
    routing("no routes", cli=select_lines(ROUTING, 1, 2, 3)),
    routing("one word", cli=ROUTING + "10.0.0.1, port1"),
    *(
        routing(f"lines {numbers} + {more!r}", IndexError, select_lines(ROUTING, *numbers) + more)
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
    arp("", cli=ARP),
    arp("wide text", cli=WIDE_ARP),
    arp("long words", cli=f"{ARP}a b c {'d' * 40} {'e' * 40}\n"),
    *(
        arp(f"{text!r}", IndexError, text)
        for text in ("", "no header", ARP + "too few columns", ARP + "two words\n", ARP + "one")
    ),
    *(
        case(label, error, **patched)
        for case in (routing, arp)
        for label, error, patched in (*CLI_ERRORS, *RUNNER_ERRORS, *TABLE_RUNNER_ERRORS)
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


def with_sessions(sessions: Any) -> dict[str, Any]:
    """Replace `get_bfd_neighbor` with a function that returns `sessions`."""
    return {"get_bfd_neighbor": lambda *arguments: sessions, "_logger": NullLogger()}


def with_details(sessions: Any) -> dict[str, Any]:
    """Replace `get_bfd_neighbor`: the call for the details, with `list_bfd`, returns `sessions`."""
    return {"get_bfd_neighbor": lambda cmd, *list_bfd: sessions if list_bfd else SESSIONS, **QUIET}


def with_copy(deepcopy: Callable[[object], object]) -> dict[str, Any]:
    """Replace `get_bfd_neighbor` as above, and `copy.deepcopy`."""
    return {**with_sessions(SESSIONS), "copy": SimpleNamespace(deepcopy=deepcopy)}


def delete_get_bfd_neighbor(sessions: object) -> object:
    """A `copy.deepcopy` that deletes `get_bfd_neighbor` from the module."""
    vars(sys.modules["veldarin.modules.modules_util"]).pop("get_bfd_neighbor", None)
    return sessions


def restore_get_bfd_neighbor(simulator: Simulator) -> None:
    vars(simulator.module)["get_bfd_neighbor"] = with_sessions(SESSIONS)["get_bfd_neighbor"]


NAME = "192.0.2.1_port1"  # of ONE_SESSION
SESSIONS = {"s": {"neighbor_ip": "192.0.2.1", "interface": "port1", "zebra_notifications": "1"}}
QUIET: dict[str, Any] = {"_logger": NullLogger()}


def bfd(
    label: str,
    error: type[BaseException] | None = None,
    list_bfd: object = None,
    cli: object = ONE_SESSION,
    **patched: object,
) -> CallCase:
    """Return a case of `get_bfd_neighbor` with `list_bfd`, or an empty dictionary."""
    args = ("c", {} if list_bfd is None else list_bfd)
    return CallCase("get_bfd_neighbor", args, error, label, cli=cli, patched=patched)


def bfd_list(
    label: str,
    error: type[BaseException] | None = None,
    cli: object = "nothing",
    before: Any = None,
    **patched: object,
) -> CallCase:
    """Return a case of `list_bfd_neighbor`."""
    case = CallCase("list_bfd_neighbor", (), error, label, cli=cli, patched=patched)
    return case._replace(before=before)


BFD_CASES = [
    CallCase("get_bfd_neighbor", ("c",), label="no session"),
    CallCase("get_bfd_neighbor", ("c",), cli=ONE_SESSION, label="one session, shared default"),
    bfd("one session"),
    bfd("by keyword")._replace(args=(), kwargs={"cmd": "c", "list_bfd": {}}),
    bfd("objname", cli="objname\n" + ONE_SESSION),
    bfd("two sessions", cli=TWO_SESSIONS, **QUIET),
    bfd("wide text", cli=ONE_SESSION + "größe: \U0001f600"),
    bfd("broken headers", cli="echo\npeer \npeer 1\na: b: c\npeer 1 2 3\nd:e", **QUIET),
    bfd("broken timers", cli=ONE_SESSION[:-60], **QUIET),
    bfd("logger stops", Stop, cli=TWO_SESSIONS, _logger=StoppingLogger()),
    bfd("logger deleted", NameError, cli=TWO_SESSIONS, _logger=DELETED),
    bfd("no lines, logger deleted", NameError, cli="peer", _logger=DELETED),
    bfd("no logger", AttributeError, cli=TWO_SESSIONS, _logger=None),
    bfd("session known", list_bfd={NAME: {"old": "1"}}),
    bfd("reading sessions fails", Failure, BrokenMapping()),
    bfd("storing a session fails", Failure, ReadOnlyMapping()),
    bfd("runner returns a list", TypeError, cli="nothing", **runner_returning(["peer"])),
    bfd("int for the dictionary", TypeError, 5),
    bfd("failing dictionary", Failure, AlwaysRaises()),
    bfd("known session is an int", TypeError, {NAME: 5}),
    *(bfd(label, error, **patched) for label, error, patched in CLI_ERRORS),
    *(
        CallCase("get_bfd_neighbor", ("a",), error, label, patched=patched)
        for label, error, patched in RUNNER_ERRORS
    ),
    bfd("runner returns an int", TypeError, cli="nothing", **runner_returning(5)),
    bfd("addable output", cli="nothing", **runner_returning(RightAddable(ONE_SESSION))),
    bfd("tabs within", cli=ONE_SESSION.replace(": ", ":\t")),
    bfd("one line", cli="peer", **QUIET),
    bfd("long field", cli=f"{ONE_SESSION}{'K' * 80}: {'v' * 80}"),
    bfd("timers resize the session", cli=ONE_SESSION.replace("\tZebra Notifications: 2\n", "")),
    bfd_list("no sessions"),
    bfd_list("one session", cli=ONE_SESSION),
    bfd_list("two sessions", cli=TWO_SESSIONS, **QUIET),
    bfd_list("given sessions", **with_sessions(SESSIONS)),
    bfd_list("no address", **with_sessions({"s": {}})),
    bfd_list("address is not text", **with_sessions({"s": {"neighbor_ip": 1, "interface": 2}})),
    bfd_list("int for the sessions", **with_sessions(5)),
    bfd_list("key is not text", **with_sessions({5: {}})),
    bfd_list("mapping lost its keys", **with_sessions(MissingKeyMapping())),
    bfd_list("mapping repeats a key", **with_sessions(RepeatedKeyMapping())),
    bfd_list("copy fails", copy=AlwaysRaises(), **with_sessions(SESSIONS)),
    bfd_list("copy deleted", copy=DELETED, **with_sessions(SESSIONS)),
    bfd_list("details lose the session", **with_details({})),
    bfd_list("details without a session", **with_details({"s": 5})),
    bfd_list("no details", **with_details(None)),
    bfd_list("copy has other keys", **with_copy(lambda sessions: ["x"])),
    bfd_list("iteration of the copy fails", **with_copy(lambda sessions: map(fail, [1]))),
    bfd_list("get_bfd_neighbor fails", get_bfd_neighbor=fail, **QUIET),
    bfd_list("get_bfd_neighbor deleted", get_bfd_neighbor=DELETED, **QUIET),
    bfd_list("get_bfd_neighbor stops", Stop, get_bfd_neighbor=stop),
    bfd_list("logger stops", Stop, get_bfd_neighbor=fail, _logger=StoppingLogger()),
    bfd_list("logger deleted", NameError, get_bfd_neighbor=fail, _logger=DELETED),
    bfd_list("no output", cli=None, **QUIET),
]

# CPython stores all characters of a string in one, two or four bytes each. Each of these lines sets
# that width; as the first line of the output it is one that the parsers skip.
WIDTHS = {"latin": "\u00f6\n", "two bytes": "\u0142\n", "four bytes": "\U0001f600\n"}


def with_width(case: CallCase, width: str) -> CallCase:
    """Return the case with output of another width of characters."""
    before = WIDTHS[width]
    if case.function == "get_bfd_neighbor":
        before = before.strip()
    assert isinstance(case.cli, str)
    return case._replace(cli=before + case.cli, label=f"{case.label or case.args} in {width}")


WIDE_CASES = [
    with_width(case, width)
    for case in (*CLI_CASES, *BFD_CASES)
    if case.function not in ("get_cli_command_output", "list_bfd_neighbor")
    and isinstance(case.cli, str)
    and case.cli != "nothing"
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
# Not for fault injection: the width of a string makes no difference when an allocation fails; the
# doubles of the two KeyError cases raise from C, which cannot be exempt; and the last case changes
# the module.
REPEATED_ONLY = [
    *(case for case in WIDE_CASES if case.error is not None or case.patched),
    bfd_list("KeyError without arguments", **with_sessions(MissingKeyWithoutArgs())),
    bfd_list("KeyError with two arguments", **with_sessions(MissingKeyWithTwoArgs())),
    bfd_list(
        "copying deletes get_bfd_neighbor",
        before=restore_get_bfd_neighbor,
        **with_copy(delete_get_bfd_neighbor),
    ),
]


def prepare(
    case: CallCase, simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> Callable[[], object]:
    """Prepare the simulator and the module, and return a function that makes the call."""
    simulator.set_reply("get_cli_cmd_output", case.cli)
    simulator.set_reply("cookieval_wrap", b"wrapped")
    simulator.set_reply("cookieval_unwrap", None)  # the text stays as it is
    for row in QUERY_CASES:
        if row.native:
            simulator.set_reply(row.native, case.reply)
    for name, value in case.patched.items():
        if value is DELETED:
            monkeypatch.delattr(module, name)
        else:
            monkeypatch.setattr(module, name, value, raising=False)
    steps = [FailNth(case.create), FailNth(case.release)]
    for step, name in zip(steps, ["on_create", "on_release"]):
        if step.fails_at is not None:
            setattr(simulator, name, step)
    function = getattr(module, case.function)

    def call() -> object:
        for step in steps:
            step.taken = 0
        if case.before is not None:
            case.before(simulator)
        return function(*case.args, **case.kwargs)

    return call
