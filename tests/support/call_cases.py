"""Calls of every function: on success, and on every failure that a caller, a collaborator or the
appliance can provoke. For tests that repeat each of them or let memory fail within."""

from __future__ import annotations

import ctypes
import io
import sys
from collections.abc import Mapping
from functools import partial
from pathlib import Path
from types import MappingProxyType, SimpleNamespace
from typing import Any, Callable, NamedTuple

import ujson

from tests.support.function_table import FUNCTIONS, NAMED
from tests.support.query_cases import ROWS
from veldarin_simulator import RawJSON, Simulator


class Failure(Exception):
    """What tests make collaborators raise; a new one each time."""


def fail(*args: object, **kwargs: object) -> Any:
    raise Failure


class FailingException(Exception):
    """An exception that cannot be made."""

    __init__ = fail


class NumberException(Exception):
    """An exception class that makes a number."""

    def __new__(cls, *args: object) -> Any:
        return 5


class Failing:
    """An object that fails whatever is asked of it."""

    __call__ = __bool__ = __getattr__ = __iter__ = __eq__ = __len__ = __contains__ = fail
    __hash__ = None  # type: ignore[assignment]


class Silent:
    """A logger that does nothing; it can be called as well."""

    def __init__(self, *given: object) -> None:
        pass

    def debug(self, text: str) -> None:
        pass

    error = debug


class Unequal(str):
    """A text that cannot be compared; as a key it stands in the way of its equals."""

    __hash__ = str.__hash__
    __eq__ = fail


class Unfound(str):
    """A text that a dictionary does not find by its equal."""

    def __hash__(self) -> int:
        return super().__hash__() ^ 1


class Unsure:
    """An object whose answers to a comparison have no truth."""

    __hash__ = None  # type: ignore[assignment]

    def __eq__(self, other: object) -> Any:
        return Failing()


class Case(NamedTuple):
    """A call that is repeated: what it raises, if anything, and how the device is prepared.

    `cli` is what the command line answers, `reply` what every bridged query is answered; `rebound`
    module globals are bound to these values, and those bound to `GONE` are deleted.
    """

    function: str
    args: tuple[Any, ...] = ()
    kwargs: Mapping[Any, Any] = MappingProxyType({})
    error: type[BaseException] | None = None
    label: str = ""
    cli: object = "nothing"
    reply: object = None
    rebound: Mapping[str, Any] = MappingProxyType({})
    create: int | None = None  # which creation of a JSONObject fails, counted from 0
    release: int | None = None  # which release of a JSONObject fails
    before: Callable[[Simulator], object] | None = None  # each call

    def __str__(self) -> str:
        return f"{self.function}-{self.label or self.args}"


GONE = object()


class Step:
    """Something of which, in each call of the function, the n-th time fails."""

    def __init__(self, fails_at: int | None) -> None:
        self.fails_at, self.taken = fails_at, 0

    def __call__(self, *given: object) -> None:
        self.taken += 1
        if self.taken - 1 == self.fails_at:
            raise Failure


UNBOUND = UnboundLocalError
ERRORS_OF_ARGUMENTS = [
    *(Case(row.name, (1,) * 7, {}, TypeError, "too many arguments") for row in FUNCTIONS),
    *(
        Case(row.name, (None,) * row.required, {"other": 1}, TypeError, "unknown keyword")
        for row in FUNCTIONS
    ),
    *(Case(row.name, (), {}, TypeError, "too few arguments") for row in FUNCTIONS if row.required),
    *(
        Case(row.name, (), {b"bytes": 1}, TypeError, "keyword that is no string")
        for row in FUNCTIONS
        if row.kind == "keywords"
    ),
    *(
        Case(row.name, (None,), {row.parameters[0].name: 1}, TypeError, "bound twice")
        for row in FUNCTIONS
        if row.kind == "keywords"
    ),
    *(
        Case(row.name, (bytearray(b"value"),) * row.required, {}, TypeError, "wrong type")
        for row in FUNCTIONS
        if row.parameters and row.parameters[0].type
    ),
    *(
        Case(row.name, (None,), {}, TypeError, "None for bytes")
        for row in FUNCTIONS
        if row.parameters and row.parameters[0].type is bytes
    ),
    Case("capture_sniffer_profile", ("p", 5), {}, TypeError, "wrong type of the event"),
    Case("capture_sniffer_profile", ("p",), {"event": 5}, TypeError, "wrong type by keyword"),
    Case("capture_sniffer_profile", (), {"event": "Stop"}, TypeError, "missing by keyword"),
    Case(
        "list_switch_trunk_state", (), {Unequal("trunk_name"): 1}, Failure, "uncomparable keyword"
    ),
    Case("get_bfd_neighbor", (), {"list_bfd": {}}, TypeError, "missing by keyword"),
]

SESSION_CASES = [
    Case("new_cookie_id"),
    Case("aps_unsigned_int_hash", (b"some\0text",)),
    Case("get_cookie_name", ([1],)),
    Case("get_cookie_name", ("",)),
    Case("get_cookie_name", (Failing(),), {}, Failure, "truth fails"),
    *(
        Case("get_cookie_name", (1,), {}, Failure, f"{name} fails", rebound={name: fail})
        for name in ("text_", "aps_unsigned_int_hash", "serial_number_ascii")
    ),
    *(
        Case("get_cookie_name", (1,), {}, NameError, f"{name} gone", rebound={name: GONE})
        for name in ("text_", "aps_unsigned_int_hash", "serial_number_ascii")
    ),
    *(
        Case(
            "get_cookie_name",
            (1,),
            {},
            TypeError,
            f"serial number {serial!r}",
            rebound={"serial_number_ascii": lambda serial=serial: serial},
        )
        for serial in (None, "text", 5)
    ),
    Case("encrypt_cookie", (b"plain",)),
    Case("encrypt_cookie", (b"",)),
    Case("decrypt_cookie", (b"encrypted\0more",)),
    Case("decrypt_cookie", (b"x" * 5000,), label="long text"),
    Case("check_cert_expiration", (b"/certificate",)),
    Case(
        "check_cert_expiration",
        (b"/certificate",),
        label="expired",
        before=lambda simulator: simulator.set_reply("gui_chk_cert_expiration", 3),
    ),
]


def unlink(simulator: Simulator) -> None:
    if simulator.secret_path.exists():
        simulator.secret_path.unlink()


def write(simulator: Simulator) -> None:
    simulator.secret_path.write_text(" secret \nmore")


def make_directory(simulator: Simulator) -> None:
    simulator.secret_path.mkdir(exist_ok=True)


class File(io.StringIO):
    """A file in which single steps fail; leaving it may swallow what failed."""

    def __init__(self, fails: str = "", swallows: bool = False) -> None:
        super().__init__("text\n")
        self.fails, self.swallows = fails, swallows

    def step(self, name: str) -> None:
        if name == self.fails:
            raise Failure

    def __enter__(self) -> File:
        self.step("enter")
        return self

    def __exit__(self, *error: object) -> Any:
        self.step("exit")
        return self.swallows

    def readline(self, *size: Any) -> Any:
        self.step("readline")
        return "text\n"

    def write(self, text: str) -> int:
        self.step("write")
        return len(text)


class UnsureFile(File):
    """A file that cannot say whether it swallows what failed."""

    def __exit__(self, *error: object) -> Any:
        return Failing()


def opening(fails: str = "", mode: str = "wr", swallows: bool = False) -> Callable[..., File]:
    """An `open` whose file fails at a step when it is opened in one of the modes."""
    return lambda path, how: File(fails if how in mode else "", swallows)


def path_like(fails: str) -> Callable[[str], object]:
    """A `Path` with a method that fails."""

    class FailingPath(type(Path())):  # type: ignore[misc]
        pass

    setattr(FailingPath, fails, fail)
    return FailingPath


class PathOfUnknownTruth:
    """A `Path` that cannot say whether there is a file."""

    def __init__(self, path: str) -> None:
        pass

    def is_file(self) -> Failing:
        return Failing()


def token(
    label: str, error: type[BaseException] | None, before: Any = unlink, **rebound: object
) -> Case:
    return Case("get_token", (), {}, error, label, rebound=rebound, before=before)


TOKEN_CASES = [
    token("file made", None),
    token("file read", None, write),
    token("directory in its place", IsADirectoryError, make_directory),
    *(
        token(f"{name} fails", Failure, **{name: fail})
        for name in ("text_", "Path", "open", "urandom", "hexlify")
    ),
    *(
        token(f"{name} gone", NameError, **{name: GONE})
        for name in ("text_", "Path", "urandom", "hexlify")
    ),
    *(token(f"{name} fails", Failure, Path=path_like(name)) for name in ("is_file", "absolute")),
    token("absolute fails on reading", Failure, write, Path=path_like("absolute")),
    token("truth of is_file fails", Failure, Path=PathOfUnknownTruth),
    *(
        token(f"{step} fails on writing", Failure, open=opening(step, "w"))
        for step in ("enter", "write", "exit")
    ),
    *(
        token(f"{step} fails on reading", Failure, open=opening(step, "r"))
        for step in ("enter", "readline", "exit")
    ),
    token("writing fails and is swallowed", None, open=opening("write", "w", swallows=True)),
    token("reading fails and is swallowed", UNBOUND, open=opening("readline", "r", swallows=True)),
    token("truth of exit fails", Failure, open=lambda path, how: UnsureFile("readline")),
    token("open gives no context manager", AttributeError, open=lambda path, how: None),
    token("hexlify gives no bytes", AttributeError, hexlify=lambda random: "text"),
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
    ("comparison fails", lambda text: [{"interface": [{"name": Failing()}]}]),
    ("truth of comparison fails", lambda text: [{"interface": [{"name": Unsure()}]}]),
    ("iteration fails", lambda text: [{"interface": map(fail, [1])}]),
]
BRIDGE_CASES = [
    *(
        Case(row.function, row.arguments, reply=row.reply, label=f"success {row.arguments}")
        for row in ROWS
    ),
    *(
        Case(
            row.function,
            row.arguments,
            {},
            Failure,
            f"creation {number} fails {row.arguments}",
            create=number,
        )
        for row in ROWS
        for number in (0, 1)
    ),
    *(
        Case(
            row.function,
            row.arguments,
            {},
            Failure,
            f"release {number} fails {row.arguments}",
            reply=row.reply,
            release=number,
        )
        for row in ROWS
        for number in (0, 1)
    ),
    *(
        Case(
            row.function,
            row.arguments,
            {},
            NameError,
            f"json gone {row.arguments}",
            reply=row.reply,
            rebound={"json": GONE},
        )
        for row in ROWS
    ),
    *(
        Case(
            row.function,
            row.arguments,
            {},
            Failure,
            f"loads gone {row.arguments}",
            reply=row.reply,
            rebound={"json": Failing()},
        )
        for row in ROWS
    ),
    *(
        Case(
            row.function,
            row.arguments,
            {},
            ujson.JSONDecodeError,
            f"no JSON {row.arguments}",
            reply=RawJSON("{oops"),
        )
        for row in ROWS
        if row.native
    ),
    *(
        Case(name, (Failing(),), {}, Failure, "truth fails")
        for name in (
            "switch_acl_ingress_counter",
            "switch_acl_egress_counter",
            "switch_acl_prelookup_counter",
            "list_switch_trunk_state",
            "list_switch_mclag_list",
        )
    ),
    Case("switch_acl_ingress_counter", (), {"policy_id": "by keyword"}),
    Case("list_switch_trunk_state", (), {"trunk_name": "by keyword"}),
    Case("list_switch_trunk_state", (), {Unfound("trunk_name"): "a"}, label="unfound keyword"),
    Case(
        "list_switch_trunk_state",
        (),
        {"trunk_name": "a", Unfound("trunk_name"): "b"},
        label="keyword and its unfound equal",
    ),
    Case("list_switch_stp_state", (object(),), {}, TypeError, "request of no JSON type"),
    Case("capture_sniffer_profile", (), {"event": "Pause", "profile_name": None}),
    *(
        Case("list_system_interface_physical", ("port1",), {}, error, f"reply {reply}", reply=reply)
        for reply, error in REPLIES
    ),
    *(
        Case(
            "list_system_interface_physical",
            ("port1",),
            {},
            Failure,
            label,
            rebound={"json": SimpleNamespace(loads=loads)},
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
    ("bytes_ gone", NameError, {"bytes_": GONE}),
    ("text_ fails", Failure, {"text_": fail}),
    ("text_ gives a number", AttributeError, {"text_": lambda data, charset: 5}),
    ("text_ gives text of its own", Failure, {"text_": lambda data, charset: Irreplaceable(data)}),
    ("text_ gone", NameError, {"text_": GONE}),
    ("_CHARSET gone", NameError, {"_CHARSET": GONE}),
    ("_CHARSET unknown", LookupError, {"_CHARSET": "no such charset"}),
]


class Irreplaceable(str):
    """A text of which nothing can be replaced."""

    replace = fail


def lines(text: str, *numbers: int) -> str:
    """Some lines of a text."""
    split = text.split("\n")
    return "\n".join(split[number] for number in numbers)


def answered(text: object) -> dict[str, object]:
    """A runner of the module's own whose text is anything."""
    return {"get_cli_command_output": lambda command: text}


CLI_CASES = [
    Case("get_cli_command_output", ("command",), cli="a--More--b\n"),
    Case("get_cli_command_output", ("command",), cli="", label="empty output"),
    Case("get_cli_command_output", ("ö" * 300,), label="long command"),
    Case("get_cli_command_output", (None,), {}, TypeError, "no command"),
    Case("get_cli_command_output", ("\ud800",), {}, UnicodeEncodeError, "unencodable command"),
    Case("get_cli_command_output", ("c",), {}, UnicodeDecodeError, "bad output", cli=b"\xff\xfe"),
    Case(
        "get_cli_command_output",
        ("c",),
        {},
        NameError,
        "no output, no error class",
        cli=None,
        rebound={"CFunctionError": GONE},
    ),
    Case(
        "get_cli_command_output",
        ("c",),
        {},
        Failure,
        "no output, failing class",
        cli=None,
        rebound={"CFunctionError": fail},
    ),
    Case(
        "get_cli_command_output",
        ("c",),
        {},
        TypeError,
        "no output, no exception class",
        cli=None,
        rebound={"CFunctionError": str},
    ),
    Case(
        "get_cli_command_output",
        ("c",),
        {},
        TypeError,
        "no output, a class that is no exception",
        cli=None,
        rebound={"CFunctionError": lambda message: int},
    ),
    Case(
        "get_cli_command_output",
        ("c",),
        {},
        Failure,
        "no output",
        cli=None,
        rebound={"CFunctionError": Failure},
    ),
    *(
        Case(
            "get_cli_command_output",
            ("c",),
            {},
            error,
            f"no output, {label}",
            cli=None,
            rebound={"CFunctionError": lambda message, returned=returned: returned},
        )
        for label, error, returned in (
            ("returned exception class", Failure, Failure),
            ("returned class that fails", Failure, FailingException),
            ("returned class without instances", TypeError, NumberException),
        )
    ),
    *(
        Case("get_cli_command_output", ("command",), {}, error, label, rebound=rebound)
        for label, error, rebound in CLI_ERRORS
    ),
    Case("get_routing_table_result", ("192.0.2.7",), cli=ROUTING),
    Case("get_routing_table_result", (None,), cli=WIDE + ROUTING, label="wide text"),
    Case("get_routing_table_result", ("a",), cli=lines(ROUTING, 1, 2, 3), label="no routes"),
    Case("get_routing_table_result", ("a",), cli=ROUTING + "10.0.0.1, port1", label="one word"),
    *(
        Case(
            "get_routing_table_result",
            ("a",),
            {},
            IndexError,
            f"lines {numbers} + {more!r}",
            cli=lines(ROUTING, *numbers) + more,
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
        Case("get_routing_table_result", ("a",), {}, error, label, rebound=rebound)
        for label, error, rebound in CLI_ERRORS
    ),
    Case("get_system_arp_result", cli=ARP),
    Case("get_system_arp_result", cli=WIDE, label="wide text"),
    Case("get_system_arp_result", cli=f"{ARP}a b c {'d' * 40} {'e' * 40}\n", label="long words"),
    *(
        Case("get_system_arp_result", (), {}, IndexError, f"{text!r}", cli=text)
        for text in ("", "no header", ARP + "too few columns", ARP + "two words\n", ARP + "one")
    ),
    *(
        Case("get_system_arp_result", (), {}, error, label, rebound=rebound)
        for label, error, rebound in CLI_ERRORS
    ),
    *(
        Case(
            name,
            ("a",) * NAMED[name].required,
            {},
            error,
            f"runner gives {what}",
            rebound=answered(text),
        )
        for name in ("get_routing_table_result", "get_system_arp_result")
        for what, text, error in [
            ("a number", 5, AttributeError),
            ("None", None, AttributeError),
            ("bad bytes", b"\xff", UnicodeDecodeError),
            ("what fails", SimpleNamespace(split=fail, replace=fail), Failure),
            ("what is no text", SimpleNamespace(split=Silent, replace=Silent), TypeError),
        ]
    ),
    *(
        Case(
            name,
            ("a",) * NAMED[name].required,
            {},
            Failure,
            "runner fails",
            rebound={"get_cli_command_output": fail},
        )
        for name in ("get_routing_table_result", "get_system_arp_result", "get_bfd_neighbor")
    ),
    *(
        Case(
            name,
            ("a",) * NAMED[name].required,
            {},
            NameError,
            "runner gone",
            rebound={"get_cli_command_output": GONE},
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


class Stop(BaseException):
    """Not caught by handlers of `Exception`."""


def stop(*args: object) -> Any:
    raise Stop


class StoppingLogger:
    """A logger that cannot be used."""

    debug = error = staticmethod(stop)


def given_sessions(sessions: Any) -> dict[str, object]:
    return {"get_bfd_neighbor": lambda *given: sessions, "_logger": Silent()}


def detailed(sessions: Any) -> dict[str, object]:
    """Queries whose details are other than the summaries."""
    return {"get_bfd_neighbor": lambda cmd, *given: sessions if given else SESSIONS, **QUIET}


def copied(known: Callable[[object], object]) -> dict[str, object]:
    """Deep copies of the sessions that are something else."""
    return {**given_sessions(SESSIONS), "copy": SimpleNamespace(deepcopy=known)}


class Holding:
    """Sessions, all of them, none of which is given or taken."""

    __getitem__: Callable[..., Any] = fail
    __setitem__ = fail

    def __contains__(self, name: object) -> bool:
        return True


class Full(Holding):
    """Sessions that are given, but not taken."""

    def __getitem__(self, *name: object) -> Any:
        return {}


class Lost:
    """A mapping that has not got what it names."""

    __getitem__: Any = {}.__getitem__

    def keys(self) -> list[str]:
        return ["x"]


class Repeating:
    """A mapping that lists a key twice."""

    def keys(self) -> list[str]:
        return ["x", "x"]

    def __getitem__(self, key: str) -> Any:
        return {}


def raising_as_c(raiser: Any, *given: object) -> Callable[..., Any]:
    """A function of the interpreter's that raises, and gives the exception no instance yet."""
    raiser.restype, raiser.argtypes = None, [ctypes.py_object] * len(given)
    return partial(raiser, *given)


class LostWithoutWord(Lost):
    """The same, and nothing is said of the key."""

    __getitem__ = raising_as_c(ctypes.pythonapi.PyErr_SetNone, KeyError)


class LostWithWords(Lost):
    """The same, and more is said than the key."""

    __getitem__ = raising_as_c(ctypes.pythonapi.PyErr_SetObject, KeyError, ("x", "y"))


class Sum:
    """What becomes a text when something is put before it."""

    def __contains__(self, text: object) -> bool:
        return text == "peer"

    def __radd__(self, text: str) -> str:
        return text + ONE_SESSION


def lose_query(sessions: object) -> object:
    """A deep copy that makes the module lose its query."""
    vars(sys.modules["veldarin.modules.modules_util"]).pop("get_bfd_neighbor", None)
    return sessions


def find_query(simulator: Simulator) -> None:
    vars(simulator.module)["get_bfd_neighbor"] = given_sessions(SESSIONS)["get_bfd_neighbor"]


NAME = "192.0.2.1_port1"  # of ONE_SESSION
SESSIONS = {"s": {"neighbor_ip": "192.0.2.1", "interface": "port1", "zebra_notifications": "1"}}
QUIET = {"_logger": Silent()}
BFD_CASES = [
    Case("get_bfd_neighbor", ("c",), label="no session"),
    Case("get_bfd_neighbor", ("c",), cli=ONE_SESSION, label="one session, shared default"),
    Case("get_bfd_neighbor", ("c", {}), cli=ONE_SESSION, label="one session"),
    Case("get_bfd_neighbor", (), {"cmd": "c", "list_bfd": {}}, cli=ONE_SESSION, label="by keyword"),
    Case("get_bfd_neighbor", ("c", {}), cli="objname\n" + ONE_SESSION, label="objname"),
    Case("get_bfd_neighbor", ("c", {}), cli=TWO_SESSIONS, label="two sessions", rebound=QUIET),
    Case("get_bfd_neighbor", ("c", {}), cli=ONE_SESSION + "größe: \U0001f600", label="wide text"),
    Case(
        "get_bfd_neighbor",
        ("c", {}),
        cli="echo\npeer \npeer 1\na: b: c\npeer 1 2 3\nd:e",
        label="broken headers",
        rebound=QUIET,
    ),
    Case(
        "get_bfd_neighbor", ("c", {}), cli=ONE_SESSION[:-60], label="broken timers", rebound=QUIET
    ),
    Case(
        "get_bfd_neighbor",
        ("c", {}),
        {},
        Stop,
        "logger stops",
        cli=TWO_SESSIONS,
        rebound={"_logger": StoppingLogger()},
    ),
    Case(
        "get_bfd_neighbor",
        ("c", {}),
        {},
        NameError,
        "logger gone",
        cli=TWO_SESSIONS,
        rebound={"_logger": GONE},
    ),
    Case(
        "get_bfd_neighbor",
        ("c", {}),
        {},
        AttributeError,
        "no logger",
        cli=TWO_SESSIONS,
        rebound={"_logger": None},
    ),
    Case("get_bfd_neighbor", ("c", {NAME: {"old": "1"}}), cli=ONE_SESSION, label="session known"),
    Case("get_bfd_neighbor", ("c", Holding()), {}, Failure, "sessions not given", cli=ONE_SESSION),
    Case("get_bfd_neighbor", ("c", Full()), {}, Failure, "sessions not taken", cli=ONE_SESSION),
    Case(
        "get_bfd_neighbor",
        ("c", {}),
        {},
        TypeError,
        "runner gives a list",
        rebound=answered(["peer"]),
    ),
    Case("get_bfd_neighbor", ("c", 5), {}, TypeError, "no dictionary", cli=ONE_SESSION),
    Case("get_bfd_neighbor", ("c", Failing()), {}, Failure, "failing dictionary", cli=ONE_SESSION),
    Case(
        "get_bfd_neighbor",
        ("c", {NAME: 5}),
        {},
        TypeError,
        "no session known",
        cli=ONE_SESSION,
    ),
    *(
        Case("get_bfd_neighbor", ("c", {}), {}, error, label, cli=ONE_SESSION, rebound=rebound)
        for label, error, rebound in CLI_ERRORS
    ),
    Case(
        "get_bfd_neighbor", ("c", {}), {}, TypeError, "runner gives a number", rebound=answered(5)
    ),
    Case("get_bfd_neighbor", ("c", {}), label="runner gives a sum", rebound=answered(Sum())),
    Case("get_bfd_neighbor", ("c", {}), label="tabs within", cli=ONE_SESSION.replace(": ", ":\t")),
    Case("get_bfd_neighbor", ("c", {}), label="one line", cli="peer", rebound=QUIET),
    Case(
        "get_bfd_neighbor",
        ("c", {}),
        label="long field",
        cli=f"{ONE_SESSION}{'K' * 80}: {'v' * 80}",
    ),
    Case(
        "get_bfd_neighbor",
        ("c", {}),
        label="timers that need room",
        cli=ONE_SESSION.replace("\tZebra Notifications: 2\n", ""),
    ),
    Case("list_bfd_neighbor", label="no sessions"),
    Case("list_bfd_neighbor", cli=ONE_SESSION, label="one session"),
    Case("list_bfd_neighbor", cli=TWO_SESSIONS, label="two sessions", rebound=QUIET),
    Case("list_bfd_neighbor", rebound=given_sessions(SESSIONS), label="given sessions"),
    Case("list_bfd_neighbor", rebound=given_sessions({"s": {}}), label="no address"),
    Case(
        "list_bfd_neighbor",
        rebound=given_sessions({"s": {"neighbor_ip": 1, "interface": 2}}),
        label="address of no text",
    ),
    Case("list_bfd_neighbor", rebound=given_sessions(5), label="no mapping"),
    Case("list_bfd_neighbor", rebound=given_sessions({5: {}}), label="key of no text"),
    Case("list_bfd_neighbor", rebound=given_sessions(Lost()), label="mapping lost its keys"),
    Case("list_bfd_neighbor", rebound=given_sessions(Repeating()), label="mapping repeats a key"),
    Case(
        "list_bfd_neighbor",
        rebound={**given_sessions(SESSIONS), "copy": Failing()},
        label="copy fails",
    ),
    Case(
        "list_bfd_neighbor", rebound={**given_sessions(SESSIONS), "copy": GONE}, label="copy gone"
    ),
    *(
        Case("list_bfd_neighbor", rebound=rebound, label=label)
        for label, rebound in [
            ("details lose the session", detailed({})),
            ("details are no session", detailed({"s": 5})),
            ("no details", detailed(None)),
            ("copy has other keys", copied(lambda sessions: ["x"])),
            ("copy fails on the way", copied(lambda sessions: map(fail, [1]))),
        ]
    ),
    Case("list_bfd_neighbor", rebound={**QUIET, "get_bfd_neighbor": fail}, label="query fails"),
    Case("list_bfd_neighbor", rebound={**QUIET, "get_bfd_neighbor": GONE}, label="query gone"),
    Case("list_bfd_neighbor", (), {}, Stop, "query stops", rebound={"get_bfd_neighbor": stop}),
    Case(
        "list_bfd_neighbor",
        (),
        {},
        Stop,
        "logger stops",
        rebound={"get_bfd_neighbor": fail, "_logger": StoppingLogger()},
    ),
    Case(
        "list_bfd_neighbor",
        (),
        {},
        NameError,
        "logger gone",
        rebound={"get_bfd_neighbor": fail, "_logger": GONE},
    ),
    Case("list_bfd_neighbor", cli=None, rebound=QUIET, label="no output"),
]

# Texts are scanned by the width of their characters. Each of these makes one of another width where
# the parsers pass over it: a line before the table, or the first line of sessions.
WIDTHS = {"latin": "\u00f6\n", "two bytes": "\u0142\n", "four bytes": "\U0001f600\n"}


def widened(case: Case, width: str) -> Case:
    """The case with a text of another width."""
    before = WIDTHS[width]
    if case.function == "get_bfd_neighbor":
        before = before.strip()
    assert isinstance(case.cli, str)
    return case._replace(cli=before + case.cli, label=f"{case.label or case.args} in {width}")


PARSERS = ("get_routing_table_result", "get_system_arp_result", "get_bfd_neighbor")
WIDE_CASES = [
    widened(case, width)
    for case in (*CLI_CASES, *BFD_CASES)
    if case.function in PARSERS and isinstance(case.cli, str) and case.cli != "nothing"
    for width in WIDTHS
]

CASES = [
    *ERRORS_OF_ARGUMENTS,
    *SESSION_CASES,
    *TOKEN_CASES,
    *BRIDGE_CASES,
    *CLI_CASES,
    *BFD_CASES,
    *(case for case in WIDE_CASES if case.error is None and not case.rebound),
]
# These are repeated only. Where memory fails, wide texts do what those before do; and the functions
# that raise as C does have no memory to be called. The last one changes the module itself.
REPEATED = [
    *CASES,
    *(case for case in WIDE_CASES if case.error is not None or case.rebound),
    Case("list_bfd_neighbor", rebound=given_sessions(LostWithoutWord()), label="nothing said"),
    Case("list_bfd_neighbor", rebound=given_sessions(LostWithWords()), label="more said"),
    Case(
        "list_bfd_neighbor",
        rebound={**given_sessions(SESSIONS), "copy": SimpleNamespace(deepcopy=lose_query)},
        label="query lost on the way",
        before=find_query,
    ),
]
