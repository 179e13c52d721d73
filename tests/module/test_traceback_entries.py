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
from tests.support.doubles import Stop, raiser
from tests.support.function_table import FUNCTIONS, NAMED, Function
from tests.support.isolated import encode_exception
from tests.support.query_cases import QUERY_CASES
from veldarin_simulator import Simulator


class Provoked(NamedTuple):
    """A failing call: its arguments fail, or the module global `raises` does."""

    function: str
    arguments: tuple[Any, ...] = ()
    raises: str | None = None
    chain: tuple[str, ...] = ()  # functions of the module called below it, outermost first


BY_NAME = {
    provoked.function: provoked
    for provoked in [
        Provoked("aps_unsigned_int_hash", ("text",)),
        Provoked("get_cookie_name", (True,), raises="text_"),
        Provoked("encrypt_cookie", ("text",)),
        Provoked("decrypt_cookie", (None,)),
        Provoked("get_token", raises="Path"),
        Provoked("check_cert_expiration", ("path",)),
        Provoked("get_cli_command_output", ("command",), raises="bytes_"),
        Provoked("get_bfd_neighbor", ("command",), raises="get_cli_command_output"),
        Provoked("list_bfd_neighbor", raises="get_bfd_neighbor"),
        Provoked("get_routing_table_result", ("192.0.2.1",), raises="get_cli_command_output"),
        Provoked("get_system_arp_result", raises="get_cli_command_output"),
        *(Provoked(case.function, case.arguments, raises="json") for case in QUERY_CASES),
    ]
}
FAILING = [BY_NAME[row.name] for row in FUNCTIONS if row.name != "new_cookie_id"]
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


class Failed(NamedTuple):
    """A failed call: the function, the exception and the only traceback entry of the module."""

    provoked: Provoked
    function: Function
    error: BaseException
    link: TracebackType


@pytest.fixture(params=FAILING, ids=lambda provoked: provoked.function)
def failed(
    request: pytest.FixtureRequest, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> Failed:
    """A failed call of each function."""
    provoked: Provoked = request.param
    error = provoke(module, monkeypatch, provoked)
    assert sys.exc_info() == (None, None, None)
    (link,) = links(error)
    return Failed(provoked, NAMED[provoked.function], error, link)


def test_entry_has_name_lines_and_globals_of_function(failed: Failed, module: ModuleType) -> None:
    code = failed.link.tb_frame.f_code
    assert code.co_name == failed.function.qualified
    low, high = failed.function.first_line
    assert low <= code.co_firstlineno <= high
    assert failed.link.tb_lineno >= code.co_firstlineno
    if failed.provoked.raises is not None:  # the argument was fine, a statement of the body failed
        assert failed.link.tb_lineno > code.co_firstlineno
    assert failed.link.tb_frame.f_globals is vars(module)


def test_entry_is_between_caller_and_callee(failed: Failed) -> None:
    names = [entry.name for entry in traceback.extract_tb(failed.error.__traceback__)]
    below = {None: [], "json": ["__getattr__"]}.get(failed.provoked.raises, ["raises"])
    assert names == ["provoke", failed.function.qualified, *below]


def test_traceback_with_entry_is_printable(failed: Failed) -> None:
    error, link = failed.error, failed.link
    text = "".join(traceback.format_exception(type(error), error, error.__traceback__))
    assert f'  File "{FILE}", line {link.tb_lineno}, in {failed.function.qualified}\n' in text


def test_entry_has_no_instruction_of_a_frame_that_never_ran(failed: Failed) -> None:
    assert failed.link.tb_lasti == failed.link.tb_frame.f_lasti == -1


def test_entry_is_tracked_by_collector(failed: Failed) -> None:
    assert gc.is_tracked(failed.link)


def test_failure_has_no_cause_or_context(failed: Failed) -> None:
    assert (failed.error.__cause__, failed.error.__context__) == (None, None)


def test_repeated_failure_has_equal_entry(
    failed: Failed, module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    first = traceback_entries(failed.error.__traceback__)
    for _ in range(2):
        error = provoke(module, monkeypatch, failed.provoked)
        assert traceback_entries(error.__traceback__) == first


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
    assert entry[:4] == [NAMED["new_cookie_id"].qualified, FILE, 28, 29]
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
