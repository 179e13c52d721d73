"""Functions look module globals up at the time of the call: rebound, deleted or in builtins."""

from __future__ import annotations

import builtins
from types import ModuleType
from typing import Any, NamedTuple

import pytest

from tests.support import isolated
from tests.support.assertions import raises_exactly, traceback_entries
from tests.support.doubles import RecordingLogger
from tests.support.module_patch import Patch
from tests.support.query_cases import QUERY_CASES
from veldarin_simulator import Simulator

HEADER = (
    "Routing entry for 192.0.2.0/24\n Known via static, distance 10, metric 0, best\n Last u 1\n"
)
SESSION = "echo\npeer 192.0.2.1 interface port1\n"
BROKEN_SESSION = "echo\npeer \n"  # a header line without its fields: logged


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


BRIDGED = {row.function: row.arguments for row in QUERY_CASES}
USES = [
    *uses("get_cookie_name", "text_ aps_unsigned_int_hash serial_number_ascii", True),
    *uses("get_token", "text_ Path open urandom hexlify"),
    *(Use(function, arguments, "json") for function, arguments in BRIDGED.items()),
    *uses("get_cli_command_output", "bytes_ text_ _CHARSET", "command"),
    *uses("get_cli_command_output", "CFunctionError", "command", cli=None),
    *uses("get_bfd_neighbor", "get_cli_command_output text_ _CHARSET", "command"),
    *uses("get_bfd_neighbor", "_logger", "command", {}, cli=BROKEN_SESSION),
    *uses("get_routing_table_result", "get_cli_command_output text_ _CHARSET", "a", cli=HEADER),
    *uses("get_system_arp_result", "get_cli_command_output text_ _CHARSET", cli="Address\n"),
]

every_use = pytest.mark.parametrize("use", USES, ids=str)


PARSERS = {"get_bfd_neighbor", "get_routing_table_result", "get_system_arp_result"}


def call(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, use: Use
) -> Any:
    """Make the call with the command's output; only the function itself reads the name."""
    if use.function in PARSERS and use.name in {"text_", "_CHARSET"}:
        text = str(use.cli).encode()
        monkeypatch.setattr(module, "get_cli_command_output", lambda command: text)
    simulator.set_reply("get_cli_cmd_output", use.cli)
    simulator.set_reply("build_system_interface_physical", [{"interface": [{"name": "port1"}]}])
    return getattr(module, use.function)(*use.arguments)


@every_use
def test_undefined_name_raises_name_error(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, use: Use
) -> None:
    home = module if hasattr(module, use.name) else builtins
    monkeypatch.delattr(home, use.name)
    error = raises_exactly(NameError, call, simulator, module, monkeypatch, use)
    assert str(error) == f"name '{use.name}' is not defined"
    (entry,) = traceback_entries(error.__traceback__)
    assert entry.function == use.function
    assert entry.line > entry.first_line


class Found(Exception):
    """Raised by test doubles: the name was looked up and used."""


class Trap:
    """An object that cannot be used in any way without `Found`."""

    def __call__(self, *args: object, **kwargs: object) -> object:
        raise Found

    def __getattr__(self, name: str) -> object:
        raise Found


def assert_call_hits_trap(
    simulator: Simulator,
    module: ModuleType,
    monkeypatch: pytest.MonkeyPatch,
    use: Use,
    holder: ModuleType,
) -> None:
    """Put a trap under the name in `holder`; the call must run into it, and not before."""
    is_charset = use.name == "_CHARSET"  # an argument to a conversion
    monkeypatch.setattr(
        holder, use.name, "no such charset" if is_charset else Trap(), raising=False
    )
    if is_charset:
        error: BaseException = raises_exactly(
            LookupError, call, simulator, module, monkeypatch, use
        )
        assert str(error) == "unknown encoding: no such charset"
    else:
        error = raises_exactly(Found, call, simulator, module, monkeypatch, use)
    (entry,) = traceback_entries(error.__traceback__)
    assert entry.function == use.function


@every_use
def test_rebound_global_is_used_by_next_call(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, use: Use
) -> None:
    assert_call_hits_trap(simulator, module, monkeypatch, use, module)


@every_use
def test_deleted_global_is_looked_up_in_builtins(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, use: Use
) -> None:
    monkeypatch.delattr(module, use.name, raising=False)

    assert_call_hits_trap(simulator, module, monkeypatch, use, builtins)


@every_use
def test_global_shadows_builtin(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, use: Use
) -> None:
    held = getattr(module, use.name, None) or getattr(builtins, use.name)
    monkeypatch.setattr(module, use.name, held, raising=False)
    monkeypatch.setattr(builtins, use.name, Trap(), raising=False)
    if use.name == "CFunctionError":
        raises_exactly(module.CFunctionError, call, simulator, module, monkeypatch, use)
    else:
        call(simulator, module, monkeypatch, use)


# Lookups that raise


@every_use
def test_builtins_getattr_error_propagates(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, use: Use
) -> None:
    error = ValueError(use.name)

    def look_up(name: str) -> object:
        if name == use.name:
            raise error
        raise AttributeError(name)

    home = module if hasattr(module, use.name) else builtins
    monkeypatch.delattr(home, use.name)
    monkeypatch.setattr(builtins, "__getattr__", look_up, raising=False)
    assert raises_exactly(ValueError, call, simulator, module, monkeypatch, use) is error
    (entry,) = traceback_entries(error.__traceback__)
    assert entry.function == use.function


def fail_in_comparison(where: str, calls: list[list[Any]]) -> list[str]:
    """How calls end while a key in the way of a name cannot be compared; none deletes a name."""
    from veldarin_simulator import Simulator

    class Unequal(str):
        __hash__ = str.__hash__

        def __eq__(self, other: object) -> bool:
            raise ValueError(f"{str(self)!s} is not comparable")

    ended = []
    with Simulator(live=False) as simulator:
        module = simulator.module
        for function, arguments, name in calls:
            names: dict[str, Any] = vars(module if where == "module" else builtins)
            kept = names.pop(name, None)
            key = Unequal(name)
            names[key] = kept
            try:
                ended.append(f"returned {getattr(module, function)(*arguments)!r}")
            except Exception as error:
                ended.append(f"{type(error).__name__}: {error}")
            finally:
                del names[key]
                if kept is not None:
                    names[name] = kept
    return ended


# A name of the module's own, and one that only the builtins have.
COMPARED = {
    "module": [
        ["get_cli_command_output", ["command"], "bytes_"],
        ["switch_mclag_icl", [], "json"],
        ["get_token", [], "open"],
    ],
    "builtins": [["get_token", [], "open"]],
}


@pytest.mark.parametrize("where", COMPARED)
def test_key_comparison_error_propagates(where: str) -> None:
    calls = COMPARED[where]
    assert isolated.value(fail_in_comparison, where, calls) == [
        f"ValueError: {name} is not comparable" for _function, _arguments, name in calls
    ]


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
