"""The module holds the GIL across every native call: while a service waits in C, another Python
thread does not run."""

from __future__ import annotations

import contextlib
import ctypes
import threading
from collections.abc import Iterator
from types import ModuleType
from typing import Any

import pytest

from tests.support.query_cases import Query
from veldarin_simulator import GILProbes, Simulator

pytestmark = pytest.mark.slow

# Milliseconds that a native call waits; another thread acquires a released GIL much sooner.
HELD, RELEASED = 20, 10_000


@pytest.fixture
def counter() -> Iterator[ctypes.c_ulong]:
    """A counter that another Python thread increments whenever it has the interpreter lock."""
    count = ctypes.c_ulong()
    ended: list[bool] = []
    started = threading.Event()

    def increment() -> None:
        while not ended:
            count.value += 1
            started.set()

    thread = threading.Thread(target=increment, daemon=True)
    thread.start()
    assert started.wait(timeout=60)
    yield count
    ended.append(True)
    thread.join(timeout=60)
    assert not thread.is_alive()


def test_probe_detects_caller_that_releases_gil(
    simulator: Simulator, counter: ctypes.c_ulong
) -> None:
    simulator.set_fixed_reply("aps_get_new_cookie_id", 1)
    simulator.probe_gil(counter, RELEASED)
    ctypes.CDLL(None).aps_get_new_cookie_id()
    assert simulator.gil_probes == GILProbes(calls=1, released=1)
    simulator.probe_gil(counter, HELD)
    ctypes.PyDLL(None).aps_get_new_cookie_id()
    assert simulator.gil_probes == GILProbes(calls=1, released=0)


def test_query_holds_gil_across_native_calls(query: Query, counter: ctypes.c_ulong) -> None:
    """A query calls its service and json-c's serializer."""
    if query.native:
        query.simulator.set_fixed_reply(query.native, query.reply)
    query.simulator.probe_gil(counter, HELD)
    query.call()
    probes = query.simulator.gil_probes
    assert probes == GILProbes(calls=len(query.sent) + 1, released=0)


@pytest.mark.parametrize(
    "function, arguments, service, reply",
    [
        ("new_cookie_id", (), "aps_get_new_cookie_id", 1),
        ("aps_unsigned_int_hash", (b"serial",), "__get_aps_hash", 1),
        ("get_cookie_name", (True,), "__get_aps_hash", 1),
        ("encrypt_cookie", (b"plain",), "cookieval_wrap", "wrapped"),
        ("decrypt_cookie", (b"wrapped",), "cookieval_unwrap", "plain"),
        ("check_cert_expiration", (b"/path",), "gui_chk_cert_expiration", 0),
        # Null, so that the service does not allocate: with a released GIL only the test fails then.
        ("get_cli_command_output", ("command",), "get_cli_cmd_output", None),
        ("get_bfd_neighbor", ("command", {}), "get_cli_cmd_output", None),
        ("get_routing_table_result", ("address",), "get_cli_cmd_output", None),
        ("get_system_arp_result", (), "get_cli_cmd_output", None),
    ],
)
def test_function_holds_gil_across_native_call(
    simulator: Simulator,
    module: ModuleType,
    counter: ctypes.c_ulong,
    function: str,
    arguments: tuple[Any, ...],
    service: str,
    reply: object,
) -> None:
    simulator.set_fixed_reply(service, reply)
    simulator.probe_gil(counter, HELD)
    with contextlib.suppress(module.CFunctionError):
        getattr(module, function)(*arguments)
    assert simulator.fixed_reply_calls(service) == 1
    assert simulator.gil_probes == GILProbes(calls=1, released=0)
