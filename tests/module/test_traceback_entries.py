"""The entry that a failing function leaves in the traceback: its name, file, lines and globals, its
place in the chain, and that there is exactly one of it."""

from __future__ import annotations

import gc
import sys
import traceback
import weakref
from types import ModuleType, TracebackType
from typing import Any, Callable, NamedTuple

import pytest

from tests.support import isolated
from tests.support.assertions import FILE, traceback_entries
from tests.support.doubles import raiser
from tests.support.function_table import FUNCTIONS, NAMED
from tests.support.isolated import encode_exception
from veldarin_simulator import Simulator


class Provoked(NamedTuple):
    """A failing call: its arguments fail, or the module global `raises` does."""

    function: str
    arguments: tuple[Any, ...] = ()
    raises: str | None = None
    chain: tuple[str, ...] = ()  # functions of the module called below it, outermost first


class Stop(BaseException):
    """An exception that the module does not catch."""


# An argument of the wrong type, or a global that fails.
FAILING = [
    Provoked("aps_unsigned_int_hash", ("text",)),
    Provoked("get_cookie_name", (True,), raises="text_"),
    Provoked("encrypt_cookie", ("text",)),
    Provoked("decrypt_cookie", (None,)),
    Provoked("get_token", raises="Path"),
    Provoked("check_cert_expiration", ("path",)),
    Provoked("switch_acl_ingress_counter", raises="json"),
    Provoked("switch_acl_egress_counter", raises="json"),
    Provoked("switch_acl_prelookup_counter", raises="json"),
    Provoked("list_switch_stp_state", (1,), raises="json"),
    Provoked("list_system_interface_physical", ("port1",), raises="json"),
    Provoked("list_switch_lg_state", raises="json"),
    Provoked("list_switch_flapguard_status", raises="json"),
    Provoked("list_switch_port_statistics", ("port1",), raises="json"),
    Provoked("list_switch_lldp_state", ("port1",), raises="json"),
    Provoked("list_switch_trunk_state", raises="json"),
    Provoked("list_switch_mclag_list", raises="json"),
    Provoked("switch_mclag_icl", raises="json"),
    Provoked("list_switch_igmp_snooping_group", (None,), raises="json"),
    Provoked("list_system_flash_list_status", raises="json"),
    Provoked("list_system_link_monitor_status", raises="json"),
    Provoked("list_switch_module_summary", raises="json"),
    Provoked("get_cli_command_output", ("command",), raises="bytes_"),
    Provoked("get_bfd_neighbor", ("command",), raises="get_cli_command_output"),
    Provoked("list_bfd_neighbor", raises="get_bfd_neighbor"),
    Provoked("get_system_sniffer_profile_summary", raises="json"),
    Provoked("capture_sniffer_profile", ("p", "Stop"), raises="json"),
    Provoked("get_routing_table_result", ("192.0.2.1",), raises="get_cli_command_output"),
    Provoked("get_system_arp_result", raises="get_cli_command_output"),
]
CHAINS = [
    # the command runner returns null: its callers, outermost first
    Provoked("get_cli_command_output", ("c",), chain=()),
    Provoked("get_bfd_neighbor", ("c",), chain=("get_cli_command_output",)),
    Provoked("get_routing_table_result", ("a",), chain=("get_cli_command_output",)),
    Provoked("get_system_arp_result", chain=("get_cli_command_output",)),
    Provoked(
        "list_bfd_neighbor", raises="text_", chain=("get_bfd_neighbor", "get_cli_command_output")
    ),
    Provoked("get_cookie_name", (True,), raises="aps_unsigned_int_hash"),
]

every_failing = pytest.mark.parametrize("provoked", FAILING, ids=lambda row: row.function)


class Loads:
    """A `json` whose attribute `loads` raises."""

    def __init__(self, error: BaseException) -> None:
        self.error = error

    def __getattr__(self, name: str) -> Callable[..., object]:
        raise self.error


def provoke(
    module: ModuleType, monkeypatch: pytest.MonkeyPatch, provoked: Provoked
) -> BaseException:
    """The exception of the call; of a raising global it is the very one that was raised."""
    raised = Stop(provoked.raises)
    if provoked.raises is not None:
        held = Loads(raised) if provoked.raises == "json" else raiser(raised)
        monkeypatch.setattr(module, provoked.raises, held)
    function = getattr(module, provoked.function)
    with pytest.raises(BaseException) as caught:  # noqa: PT011 - any, it is looked at below
        function(*provoked.arguments)
    assert provoked.raises is None or caught.value is raised
    return caught.value


def links(error: BaseException) -> list[TracebackType]:
    """The traceback entries of the module, outermost first."""
    found = []
    link = error.__traceback__
    while link is not None:
        if link.tb_frame.f_code.co_filename == FILE:
            found.append(link)
        link = link.tb_next
    return found


def test_failures_cover_every_function() -> None:
    assert [row.function for row in FAILING] == [row.name for row in FUNCTIONS][1:]


@every_failing
def test_failing_function_has_one_entry(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, provoked: Provoked
) -> None:
    (link,) = links(provoke(module, monkeypatch, provoked))
    assert link.tb_frame.f_code.co_name == NAMED[provoked.function].qualified


@every_failing
def test_entry_line_is_within_function(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, provoked: Provoked
) -> None:
    (link,) = links(provoke(module, monkeypatch, provoked))
    low, high = NAMED[provoked.function].first_line
    first_line = link.tb_frame.f_code.co_firstlineno
    assert low <= first_line <= high
    assert link.tb_lineno >= first_line
    if provoked.raises is not None:  # the argument was fine, a statement of the body failed
        assert link.tb_lineno > first_line


@every_failing
def test_entry_globals_are_of_module(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, provoked: Provoked
) -> None:
    (link,) = links(provoke(module, monkeypatch, provoked))
    assert link.tb_frame.f_globals is vars(module)


@every_failing
def test_entry_is_between_caller_and_callee(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, provoked: Provoked
) -> None:
    error = provoke(module, monkeypatch, provoked)
    names = [entry.name for entry in traceback.extract_tb(error.__traceback__)]
    below = {None: [], "json": ["__getattr__"]}.get(provoked.raises, ["raises"])
    assert names == ["provoke", NAMED[provoked.function].qualified, *below]


@every_failing
def test_traceback_with_entry_is_printable(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, provoked: Provoked
) -> None:
    error = provoke(module, monkeypatch, provoked)
    (link,) = links(error)
    text = "".join(traceback.format_exception(type(error), error, error.__traceback__))
    qualified = NAMED[provoked.function].qualified
    assert f'  File "{FILE}", line {link.tb_lineno}, in {qualified}\n' in text


@every_failing
def test_entry_is_tracked_by_collector(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, provoked: Provoked
) -> None:
    (link,) = links(provoke(module, monkeypatch, provoked))
    assert gc.is_tracked(link)


def test_cycle_through_entry_is_collected(
    module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    class Held(Exception):
        """An exception that the frame below the module's entry keeps alive."""

    def fail(*args: object) -> None:
        error = Held()
        raise error

    def call() -> weakref.ref[Held]:
        try:
            module.get_system_arp_result()
        except Held as error:
            entries = links(error)
            assert [entry.tb_next is not None for entry in entries] == [True]
            return weakref.ref(error)
        raise AssertionError("nothing was raised")

    monkeypatch.setattr(module, "get_cli_command_output", fail)
    held = call()
    gc.collect()
    assert held() is None


@every_failing
def test_repeated_failure_has_equal_entry(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, provoked: Provoked
) -> None:
    errors = [provoke(module, monkeypatch, provoked) for _ in range(3)]
    first, *others = [traceback_entries(error.__traceback__) for error in errors]
    assert others == [first, first]


@every_failing
def test_failure_leaves_no_handled_exception(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, provoked: Provoked
) -> None:
    error = provoke(module, monkeypatch, provoked)
    assert sys.exc_info() == (None, None, None)
    assert (error.__cause__, error.__context__) == (None, None)


@pytest.mark.parametrize("provoked", CHAINS, ids=lambda row: row.function)
def test_nested_functions_have_one_entry_each(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, provoked: Provoked
) -> None:
    simulator.set_reply("get_cli_cmd_output", "text" if provoked.raises == "text_" else None)
    error = provoke(module, monkeypatch, provoked)
    functions = [entry.function for entry in traceback_entries(error.__traceback__)]
    assert functions == [provoked.function, *provoked.chain]


def test_inner_argument_error_has_entries_of_both(simulator: Simulator, module: ModuleType) -> None:
    simulator.serial_number = "text"
    with pytest.raises(TypeError) as caught:
        module.get_cookie_name(True)
    outer, inner = traceback_entries(caught.value.__traceback__)
    assert (outer.function, inner.function) == ("get_cookie_name", "aps_unsigned_int_hash")
    assert outer.line > outer.first_line
    assert inner.line == inner.first_line
    assert (
        outer.first_line > inner.line
    )  # the inner function has smaller line numbers than the outer one


def memory_entry_of_new_cookie_id() -> list[list[object]]:
    """The entries of `new_cookie_id` when the first allocation of the call fails."""
    import _testcapi
    from typing import Any, cast

    from veldarin_simulator import Simulator

    capi = cast(Any, _testcapi)
    with Simulator(live=False, track_buffers=False) as simulator:
        new_cookie_id = simulator.module.new_cookie_id
        simulator.set_fixed_reply("aps_get_new_cookie_id", 2**31)
        try:
            capi.set_nomemory(0, 1)
            new_cookie_id()
        except MemoryError as error:
            capi.remove_mem_hooks()
            entries: list[list[object]] = encode_exception(error)["entries"]
            return entries
    return []


def test_first_lines_increase_in_table_order(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    (_caller, entry) = isolated.value(memory_entry_of_new_cookie_id)
    assert entry[:2] == [NAMED["new_cookie_id"].qualified, FILE]
    first_lines, lines = [entry[2]], [entry[3]]
    for provoked in FAILING:
        with monkeypatch.context() as patch:
            (link,) = links(provoke(module, patch, provoked))
        first_lines.append(link.tb_frame.f_code.co_firstlineno)
        lines.append(link.tb_lineno)
    assert first_lines == sorted(set(first_lines))
    # The failing line is before the first line of the next function.
    for first, line, following in zip(first_lines, lines, [*first_lines[1:], 10**6]):
        assert first <= line < following
