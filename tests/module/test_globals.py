"""Functions look module globals up at the time of the call: rebound, deleted or in builtins."""

from __future__ import annotations

import builtins
from functools import partial
from types import ModuleType
from typing import Any, NamedTuple, TypeVar

import pytest

from tests.support import isolated
from tests.support.assertions import raises_exactly, traceback_entries
from tests.support.doubles import Failure, RecordingLogger, UncomparableStr
from tests.support.module_patch import Patch
from tests.support.query_cases import QUERY_CASES
from veldarin_simulator import Simulator

HEADER = (
    "Routing entry for 192.0.2.0/24\n Known via static, distance 10, metric 0, best\n Last u 1\n"
)
BROKEN_SESSION = "echo\npeer \n"  # a header line without its fields: logged

E = TypeVar("E", bound=BaseException)


class Use(NamedTuple):
    """A call, the output of the command, and one global name that it reads."""

    function: str
    arguments: tuple[Any, ...]
    name: str
    cli: str | None = "nothing"

    def __str__(self) -> str:
        return f"{self.function}-{self.name}"


def uses(function: str, names: str, *arguments: Any, cli: str | None = "nothing") -> list[Use]:
    return [Use(function, arguments, name, cli) for name in names.split()]


USES = [
    *uses("get_cookie_name", "text_ aps_unsigned_int_hash serial_number_ascii", True),
    *uses("get_token", "text_ Path open urandom hexlify"),
    *(Use(*use, "json") for use in {row.function: row.arguments for row in QUERY_CASES}.items()),
    *uses("get_cli_command_output", "bytes_ text_ _CHARSET", "command"),
    *uses("get_cli_command_output", "CFunctionError", "command", cli=None),
    *uses("get_bfd_neighbor", "get_cli_command_output text_ _CHARSET", "command"),
    *uses("get_bfd_neighbor", "_logger", "command", {}, cli=BROKEN_SESSION),
    *uses("get_routing_table_result", "get_cli_command_output text_ _CHARSET", "a", cli=HEADER),
    *uses("get_system_arp_result", "get_cli_command_output text_ _CHARSET", cli="Address\n"),
]
PARSERS = {"get_bfd_neighbor", "get_routing_table_result", "get_system_arp_result"}


class Found(Exception):
    """Raised by test doubles: the name was looked up and used."""


class Trap:
    """An object that cannot be used in any way without `Found`."""

    def __call__(self, *args: object, **kwargs: object) -> object:
        raise Found

    def __getattr__(self, name: str) -> object:
        raise Found


class Call:
    """The call of a `Use`; only the function itself reads the name."""

    def __init__(
        self, simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, use: Use
    ) -> None:
        self.function, self.name = use.function, use.name
        self.module, self.monkeypatch = module, monkeypatch
        self.make = partial(getattr(module, use.function), *use.arguments)
        if use.function in PARSERS and use.name in {"text_", "_CHARSET"}:
            text = str(use.cli).encode()
            monkeypatch.setattr(module, "get_cli_command_output", lambda command: text)
        simulator.set_reply("get_cli_cmd_output", use.cli)
        simulator.set_reply("build_system_interface_physical", [{"interface": [{"name": "port1"}]}])

    def bind(self, holder: ModuleType, value: object) -> None:
        """Bind the name in the module or in the builtins."""
        self.monkeypatch.setattr(holder, self.name, value, raising=False)

    def delete(self) -> None:
        """Delete the name where the call finds it."""
        self.monkeypatch.delattr(
            self.module if hasattr(self.module, self.name) else builtins, self.name
        )

    def fails(self, kind: type[E]) -> E:
        """Return the exception of the call, which leaves one traceback entry, of a statement."""
        error = raises_exactly(kind, self.make)
        (entry,) = traceback_entries(error.__traceback__)
        assert entry.function == self.function
        assert entry.line > entry.first_line
        return error

    def assert_finds(self, holder: ModuleType) -> None:
        """Put a trap under the name in `holder`; the call must run into it, and not before."""
        if self.name == "_CHARSET":  # an argument to a conversion
            self.bind(holder, "no such charset")
            assert str(self.fails(LookupError)) == "unknown encoding: no such charset"
        else:
            self.bind(holder, Trap())
            self.fails(Found)


@pytest.fixture(params=USES, ids=str)
def call(
    request: pytest.FixtureRequest,
    simulator: Simulator,
    module: ModuleType,
    monkeypatch: pytest.MonkeyPatch,
) -> Call:
    """Each call that reads a name."""
    return Call(simulator, module, monkeypatch, request.param)


def test_undefined_name_raises_name_error(call: Call) -> None:
    call.delete()
    assert str(call.fails(NameError)) == f"name '{call.name}' is not defined"


def test_rebound_global_is_used_by_next_call(call: Call) -> None:
    call.assert_finds(call.module)


def test_deleted_global_is_looked_up_in_builtins(call: Call) -> None:
    call.monkeypatch.delattr(call.module, call.name, raising=False)
    call.assert_finds(builtins)


def test_global_shadows_builtin(call: Call) -> None:
    call.bind(call.module, getattr(call.module, call.name, None) or getattr(builtins, call.name))
    call.bind(builtins, Trap())
    if call.name == "CFunctionError":
        call.fails(call.module.CFunctionError)
    else:
        call.make()


# Lookups that raise


def test_builtins_getattr_error_propagates(call: Call) -> None:
    error = ValueError(call.name)

    def look_up(name: str) -> object:
        if name == call.name:
            raise error
        raise AttributeError(name)

    call.delete()
    call.monkeypatch.setattr(builtins, "__getattr__", look_up, raising=False)
    assert call.fails(ValueError) is error


@pytest.mark.parametrize(
    "where, function, arguments, name",
    [
        ("module", "get_cli_command_output", ["command"], "bytes_"),
        ("module", "switch_mclag_icl", [], "json"),
        ("module", "get_token", [], "open"),
        ("builtins", "get_token", [], "open"),
    ],
)
@isolated.test
def test_key_comparison_error_propagates(
    where: str, function: str, arguments: list[str], name: str
) -> None:
    """A key in the way of the name cannot be compared."""
    with Simulator(live=False) as simulator:
        module = simulator.module
        names: dict[str, Any] = vars(module if where == "module" else builtins)
        held = names.pop(name, None)
        key = UncomparableStr(name)
        names[key] = held
        try:
            raises_exactly(Failure, getattr(module, function), *arguments)
        finally:
            del names[key]
            names[name] = held


# The BFD neighbor list catches and logs exceptions of its statements.


@pytest.mark.parametrize("name", ["get_bfd_neighbor", "copy"])
def test_bfd_list_missing_global_is_logged(
    simulator: Simulator, module: ModuleType, patch: Patch, name: str
) -> None:
    logger = RecordingLogger()
    patch("_logger", logger)
    session = {"s": {"neighbor_ip": "192.0.2.1", "interface": "port1"}}
    patch("get_bfd_neighbor", lambda *given: session)
    patch.delete(name)
    assert module.list_bfd_neighbor() == []
    assert logger.debug_messages == [f"e:name '{name}' is not defined"]


def test_bfd_list_uses_current_copy_module(module: ModuleType, patch: Patch) -> None:
    logger = RecordingLogger()
    patch("_logger", logger)
    patch("get_bfd_neighbor", lambda *given: {"s": {}})
    patch("copy", Trap())
    assert module.list_bfd_neighbor() == []
    assert logger.debug_messages == ["e:"]  # the exception has no message


def test_bfd_list_missing_logger_raises_name_error(module: ModuleType, patch: Patch) -> None:
    patch("get_bfd_neighbor", Trap())
    patch.delete("_logger")
    error = raises_exactly(NameError, module.list_bfd_neighbor)
    assert str(error) == "name '_logger' is not defined"
    (entry,) = traceback_entries(error.__traceback__)
    assert entry.function == "list_bfd_neighbor"


# Names that the functions do not look up


@pytest.mark.parametrize("name", ["dict", "list", "str", "bytes", "len", "range", "type", "print"])
def test_global_named_like_list_is_not_used(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, name: str
) -> None:
    simulator.set_reply("get_cli_cmd_output", HEADER)
    before = module.get_routing_table_result("a")
    simulator.set_reply("cookieval_wrap", b"wrapped")
    monkeypatch.setattr(module, name, Trap(), raising=False)
    assert module.get_routing_table_result("a") == before
    assert module.encrypt_cookie(b"plain") == b"wrapped"
    assert module.list_switch_lg_state() is None
