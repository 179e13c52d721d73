"""The exceptions documented in the type stub are exactly those that calls raise."""

from __future__ import annotations

import re
import sys
from collections.abc import Mapping
from pathlib import Path
from types import MappingProxyType, ModuleType
from typing import Any, Callable, NamedTuple

from tests.support import isolated
from tests.support.query_cases import QUERY_CASES
from tests.support.stub import FUNCTIONS, every_function
from veldarin_simulator import RawJSON, Simulator
from veldarin_simulator.stub import Function


def documented_errors(function: Function) -> list[str]:
    """The exceptions that a docstring names under "Raises:", which it must have."""
    rows = re.findall(r"^\S.*", function.raises, re.MULTILINE)
    assert rows, function.name
    return [] if rows[0].startswith("Nothing.") else [row.partition(":")[0] for row in rows]


NO_JSON = RawJSON("{oops")
NO_UTF8 = b"peer \xff"


class Provoked(NamedTuple):
    """A failing call: its arguments, the replies of native services, and a step before it."""

    function: str
    arguments: tuple[Any, ...] = ()
    answers: Mapping[str, object] = MappingProxyType({})
    prepare: Callable[[Simulator, Path], object] = lambda simulator, folder: None

    def __str__(self) -> str:
        return self.function


def without_memory() -> None:
    """Decrypt a cookie while the allocation of its buffer fails; runs in a process of its own."""
    import _testcapi

    from veldarin_simulator import Simulator

    with Simulator(live=False) as simulator:
        decrypt_cookie = simulator.module.decrypt_cookie
        _testcapi.set_nomemory(0, 1)
        try:
            decrypt_cookie(b"value")
        finally:
            _testcapi.remove_mem_hooks()


def write_no_text(simulator: Simulator, folder: Path) -> None:
    simulator.secret_path = folder / "secret"
    simulator.secret_path.write_bytes(b"\xff\n")


def name_no_directory(simulator: Simulator, folder: Path) -> None:
    simulator.secret_path = folder / "missing" / "secret"


def forget_serial_number(simulator: Simulator, _folder: Path) -> None:
    simulator.serial_number = None


INTERFACES = "build_system_interface_physical"
NO_INTERFACES: list[Any] = [None, [], [{}], [{"interface": [{}]}], [{"interface": []}]]
COMMAND = "get_cli_cmd_output"
RUNNING_COMMANDS = {
    "get_cli_command_output": True,
    "get_bfd_neighbor": True,
    "get_routing_table_result": True,
    "get_system_arp_result": False,
}
SESSION = "\npeer 192.0.2.1 interface port1\n"

PROVOKED = [
    *(
        Provoked(row.name, (5 if row.parameters[0].types <= {"bytes", "str"} else object(),))
        for row in FUNCTIONS
        if len(row.parameters) == 1 and row.name != "get_cookie_name"
    ),
    *(
        Provoked(row.function, row.arguments, {row.native: NO_JSON})
        for row in QUERY_CASES
        if row.native is not None
    ),
    Provoked("get_cookie_name", (True,), prepare=forget_serial_number),
    Provoked("get_token", prepare=name_no_directory),
    Provoked("get_token", prepare=write_no_text),
    *(
        Provoked("list_system_interface_physical", ("port1",), {INTERFACES: reply})
        for reply in NO_INTERFACES
    ),
    Provoked("capture_sniffer_profile", (b"p", "Stop")),
    Provoked("capture_sniffer_profile", ("p", b"Stop")),
    *(
        Provoked(function, (argument,) if takes_argument else (), {COMMAND: output})
        for function, takes_argument in RUNNING_COMMANDS.items()
        for argument, output in (("command", None), ("command", NO_UTF8), ("\ud800", ""))
        if takes_argument or output != ""
    ),
    Provoked("get_cli_command_output", (None,), {COMMAND: ""}),
    Provoked("get_bfd_neighbor", (7,), {COMMAND: ""}),
    Provoked("get_bfd_neighbor", ("command", []), {COMMAND: SESSION}),
    Provoked("get_routing_table_result", ("192.0.2.1",), {COMMAND: ""}),
    Provoked("get_system_arp_result", (), {COMMAND: ""}),
]


def whatever_is_raised(function: Callable[..., object], *arguments: object) -> Exception:
    try:
        result = function(*arguments)
    except Exception as error:
        return error
    raise AssertionError(f"returned {result!r}")


def bases(error: BaseException) -> set[str]:
    return {base.__name__ for base in type(error).__mro__}


@every_function
def test_documented_errors_match_raised_errors(
    simulator: Simulator, module: ModuleType, tmp_path: Path, function: Function
) -> None:
    raised = []
    for case in PROVOKED:
        if case.function != function.name:
            continue
        for service, reply in case.answers.items():
            simulator.set_reply(service, reply)
        case.prepare(simulator, tmp_path)
        raised.append(bases(whatever_is_raised(getattr(module, function.name), *case.arguments)))
    named = documented_errors(function)
    if function.name == "decrypt_cookie":
        error = isolated.error(without_memory)
        assert error.text == "PyMem_Malloc"
        raised.append({error.type})
        if sys.maxsize > 2**31:
            too_long = bytes(2**31 - 1)  # its pages are never touched
            raised.append(bases(whatever_is_raised(module.decrypt_cookie, too_long)))
        else:
            named.remove("OverflowError")  # no object of this machine is that long
    assert [error for error in raised if not error & set(named)] == [], named
    assert [name for name in named if not any(name in error for error in raised)] == []


def test_call_documented_as_safe_raises_nothing(simulator: Simulator, module: ModuleType) -> None:
    silent = {row.name for row in FUNCTIONS if not documented_errors(row)}
    assert silent == {"new_cookie_id", "switch_mclag_icl", "list_bfd_neighbor"}
    simulator.set_reply("get_cli_cmd_output", None)
    assert [getattr(module, name)() for name in sorted(silent)] == [[], 0, None]
