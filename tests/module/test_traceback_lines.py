"""The exact lines that tracebacks report: each allocation of a call fails in turn, and a table has
the lines at which the call then ends."""

from __future__ import annotations

import re
from types import ModuleType
from typing import NamedTuple

import pytest

from checks.fault_injection.imports import BLOCK_NAME
from tests.module.test_module_execution import IMPORT_STATEMENTS, import_errors
from tests.support import isolated
from tests.support.assertions import raises_exactly, traceback_entries
from tests.support.call_cases import CASES, CallCase, prepare
from tests.support.isolated import MODULE, ROOT, Error, encode_exception
from veldarin_simulator import Simulator

# Each word has several characters: the interpreter keeps strings of one.
ROUTES = """Routing entry for 10.0.0.0/8
  Known, distance 10, metric 20, best
  Last update 30:40 ago
  mark 10.0.0.1, via port1
  10.0.0.2, port2"""
ADDRESSES = """Address
10.0.0.1 10 02:00 port1
10.0.0.2 20 02:01 port2 vlan2"""
SESSION = """echo
peer 10.0.0.1 interface port1
first: 10
Local timers
second: 20
third: 30
fourth: 40
Remote timers
fifth: 50
sixth: 60
seventh: 70
Zebra Notifications: 80"""


def ending_lines(function: str, arguments: str, output: str) -> dict[str, str]:
    """The lines at which a call ends as each of its allocations fails in turn, and then none.

    Under "raised" those of a MemoryError that leaves the call, under "logged" those of one that it
    logs, and under the name of another exception, those of that one.
    """
    import _testcapi
    import gc
    import sys
    from functools import partial
    from types import SimpleNamespace
    from typing import Any

    from tests.support.assertions import traceback_entries
    from veldarin_simulator import Simulator

    logged: list[Any] = []
    known = {"10.0.0.1_port1": {"neighbor_ip": "10.0.0.1", "interface": "port1"}}
    detailed = {"10.0.0.1_port1": {"zebra_notifications": "80"}}

    def get_bfd_neighbor(command: str, sessions: object = None) -> object:
        return known if sessions is None else detailed

    def call() -> tuple[str, BaseException | None]:
        logged.clear()
        try:
            run()
        except BaseException as error:
            return "raised", error
        return "logged", logged[0] if logged else None

    found: dict[str, set[int]] = {}
    held: list[object] = []
    gc.disable()
    with Simulator(live=False, track_buffers=False) as simulator:
        module: Any = simulator.module
        run = partial(getattr(module, function), *eval(arguments))
        simulator.set_fixed_reply("get_cli_cmd_output", output.encode())
        simulator.set_fixed_reply("cookieval_wrap", b"wrapped")
        simulator.set_fixed_reply("cookieval_unwrap", b"unwrapped")
        for service in ("aps_get_new_cookie_id", "__get_aps_hash"):
            simulator.set_fixed_reply(service, 2**31)
        if function != "get_cli_command_output":
            module.get_cli_command_output = lambda command: output
        if function == "list_bfd_neighbor":
            module.get_bfd_neighbor = get_bfd_neighbor
        module.copy = SimpleNamespace(deepcopy=lambda sessions: dict(sessions))
        module._logger = SimpleNamespace(
            debug=lambda message: logged.append(sys.exc_info()[1]), error=lambda message: None
        )
        call()  # allocates what the interpreter then keeps
        unharmed = 0  # native services do without memory
        for allocation in range(1000):
            run = partial(getattr(module, function), *eval(arguments))
            # Otherwise the interpreter's free lists serve some allocations.
            held.append([[] for _ in range(200)])
            held.append([{} for _ in range(200)])
            _testcapi.set_nomemory(allocation, allocation + 1)
            try:
                how, error = call()
            finally:
                _testcapi.remove_mem_hooks()
            unharmed = 0 if isinstance(error, MemoryError) else unharmed + 1
            if error is not None:
                if not isinstance(error, MemoryError):
                    how = type(error).__name__
                # Without memory for the entry there is none.
                lines = [entry.line for entry in traceback_entries(error.__traceback__)]
                found.setdefault(how, set()).update(lines)
            if unharmed == 5:
                return {how: " ".join(map(str, sorted(lines))) for how, lines in found.items()}
    raise AssertionError("an allocation always fails")


class Endings(NamedTuple):
    """A call, the output of its command, and the lines at which it ends."""

    function: str
    arguments: str = "()"
    output: str = ""
    raised: str = ""
    logged: str = ""
    other: str = ""


BFD, ROUTING, ARP = "get_bfd_neighbor", "get_routing_table_result", "get_system_arp_result"
FIELDS = "294 295 298 302 307 311 313 317 318"  # of SESSION, and those of broken lines
CALLS = {
    "cookie identifier": Endings("new_cookie_id", raised="29"),
    "hash": Endings("aps_unsigned_int_hash", "(b'text',)", raised="33"),
    "cookie name": Endings("get_cookie_name", "(True,)", raised="37"),
    "encryption": Endings("encrypt_cookie", "(b'',)", raised="42"),
    "decryption": Endings("decrypt_cookie", "(b'encrypted text',)", other="CFunctionError 52"),
    "command": Endings(
        "get_cli_command_output", "('c',)", "a--More--b", "261 262", other="CFunctionError 260"
    ),
    "routes": Endings(
        ROUTING, "('a',)", ROUTES, "379 380 381 387 389 390 391 392 397 401 403 404 406 408 409 411"
    ),
    "routes of one word in each field": Endings(
        ROUTING,
        "('a',)",
        ROUTES.replace("mark ", "").replace("via ", ""),
        "379 380 381 387 389 390 391 392 397 401 406 409 411",
    ),
    "routes with carriage returns": Endings(
        ROUTING,
        "('a',)",
        ROUTES.replace("\n", "\r\n"),
        "379 380 381 382 387 389 390 391 392 397 401 403 404 406 408 409 411",
    ),
    # The interpreter keeps the memory of some deleted dictionaries for new ones.
    "more routes than kept dictionaries": Endings(
        ROUTING,
        "('a',)",
        "\n".join([*ROUTES.splitlines()[:3], *["10.0.0.1, port1"] * 100]),
        "379 380 381 387 389 390 391 392 397 400 401 406 409 411",
    ),
    "wide routes": Endings(
        ROUTING, "('a',)", "\xfc\nRouting a b to", "379 380 381 382 387", other="IndexError 388"
    ),
    "short route": Endings(
        ROUTING, "('a',)", "Routing entry for", "379 380 381", other="IndexError 387"
    ),
    "addresses": Endings(ARP, "()", ADDRESSES, "416 428 429 430 431 432 434 435"),
    "wide addresses": Endings(
        ARP, "()", "Address\n\n\t\xfc", "418 428 429", other="IndexError 430"
    ),
    "session": Endings(BFD, "('c', {})", SESSION, "276", FIELDS),
    "session with one more field": Endings(
        BFD,
        "('c', {})",
        SESSION.replace("first: 10", "first: 10\nlonger: 12"),
        "276",
        FIELDS.replace(" 313", "").replace("302", "302 304"),
    ),
    "wide session": Endings(BFD, "('c', {})", f"{SESSION}\t\xfc\t", "274 276", f"293 {FIELDS}"),
    "known session": Endings(BFD, "('c', {'10.0.0.1_port1': {}})", SESSION, "276 324", FIELDS),
    "no dictionary": Endings(BFD, "('c', 5)", SESSION, "276", "294 295", "TypeError 323"),
    "sessions": Endings("list_bfd_neighbor", "()", "", "331", "335 338 342 343 344 346"),
}


@pytest.mark.parametrize("label", CALLS)
def test_each_failing_allocation_is_at_its_line(label: str) -> None:
    case = CALLS[label]
    lines = isolated.value(ending_lines, case.function, case.arguments, case.output)
    other, _, other_line = case.other.partition(" ")
    expected = {"raised": case.raised, "logged": case.logged, other: other_line}
    assert lines == {how: each for how, each in expected.items() if each}


# Failing calls


WIDTHS = (" in latin", " in two bytes", " in four bytes")  # of the same output: the same failures
FOLDER = re.compile(r"/\S+/(?=preference_cookie_secret)")
FAILING = [case for case in CASES if case.error and not str(case).endswith(WIDTHS)]
LINES = (ROOT / "tests" / "data" / "failures.txt").read_text().splitlines()
RECORDED = [line for line in LINES if not line.startswith("#")]


@pytest.mark.parametrize("case, recorded", zip(FAILING, RECORDED), ids=map(str, FAILING))
def test_failing_call_ends_as_recorded(
    simulator: Simulator,
    module: ModuleType,
    monkeypatch: pytest.MonkeyPatch,
    case: CallCase,
    recorded: str,
) -> None:
    call = prepare(case, simulator, module, monkeypatch)
    error = raises_exactly(case.error or Exception, call)
    entries = traceback_entries(error.__traceback__)
    places = " > ".join(f"{entry.function} {entry.line}" for entry in entries)
    ending = " in ".join(filter(None, [type(error).__name__, places]))
    line = ": ".join(filter(None, [repr(str(case)), ending, str(error)]))
    assert FOLDER.sub("", line) == recorded


def test_every_failing_call_is_recorded() -> None:
    assert len(RECORDED) == len(FAILING)


# Failing imports


@isolated.test
def test_failing_import_statement_has_its_line() -> None:
    broken = [f"siblings['{module}'] = None" for module, _names in IMPORT_STATEMENTS]
    bound = {"_logger": 17, "_INVALID_INDEX": 19, "_interface_count": 20, "_interface_lock": 21}
    bound.update({"_CHARSET": 23, "Counters": 25, "list_bfd_neighbor": 330, "__test__": 1})
    broken += [BLOCK_NAME.replace("NAME", name) for name in bound]
    errors = import_errors(*([statement] for statement in broken))
    entries = [Error.of(encode_exception(error)).entries_of(f"init {MODULE}") for error in errors]
    assert [entry.line for (entry,) in entries] == [*range(3, 14), *bound.values()]
