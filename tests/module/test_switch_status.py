"""The managed-switch queries: which request each kind of argument makes, and what is refused."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import pytest

from tests.support.assertions import entry, line, raises_exactly, wrong_type_message
from tests.support.doubles import CountingInt, Recorder, StrSubclass
from tests.support.query_cases import FIRST_LINES, native_calls, without_releases
from veldarin_simulator import RawJSON, Simulator


def requested(simulator: Simulator) -> Any:
    """The request of the last call, as its object held it."""
    return [data for service, data in native_calls(simulator) if service == "JSONObject.release"][
        -2
    ]


IF_TRUE = [("list_switch_trunk_state", "trunk_name"), ("list_switch_mclag_list", "mkey")]
TYPED = [
    ("list_switch_port_statistics", "build_switch_port_statistics", {"port_name": ""}),
    ("list_switch_lldp_state", "build_switch_lldp_state", {"port_name": ""}),
    ("list_switch_igmp_snooping_group", "build_switch_igmp_snooping_group", {}),
]

by_truth = pytest.mark.parametrize("function, key", IF_TRUE, ids=[f for f, _ in IF_TRUE])
typed = pytest.mark.parametrize("function, native, empty", TYPED, ids=[f for f, _, _ in TYPED])


@pytest.mark.parametrize(
    "instance", [None, 0, "", False, [], {}, 7, "x", [1, {"a": None}]], ids=repr
)
def test_stp_instance_is_always_sent(
    simulator: Simulator, module: ModuleType, instance: object
) -> None:
    simulator.set_reply("build_switch_stp_state", ["reply"])
    assert module.list_switch_stp_state(instance) == ["reply"]
    assert without_releases(simulator) == [("build_switch_stp_state", {"instance_id": instance})]


def test_stp_instance_truth_is_not_tested(simulator: Simulator, module: ModuleType) -> None:
    instance = CountingInt(4)
    instance.truth = AssertionError("asked")
    made = Recorder()
    simulator.on_create = made
    module.list_switch_stp_state(instance)
    assert made.positional[0][0][0]["instance_id"] is instance
    assert instance.bool_calls == 0


@by_truth
@pytest.mark.parametrize("value", [None, 0, "", False, [], {}, 0.0], ids=repr)
def test_false_argument_sends_empty_request(
    simulator: Simulator, module: ModuleType, function: str, key: str, value: object
) -> None:
    getattr(module, function)(value)
    assert requested(simulator) == {}
    getattr(module, function)(**{key: value})
    assert requested(simulator) == {}


@by_truth
@pytest.mark.parametrize("value", ["t1", 7, True, [0], {"a": 1}], ids=repr)
def test_true_argument_is_sent_under_its_key(
    simulator: Simulator, module: ModuleType, function: str, key: str, value: object
) -> None:
    made = Recorder()
    simulator.on_create = made
    getattr(module, function)(value)
    getattr(module, function)(**{key: value})
    requests = [args[0] for (args,) in made.positional if args]
    assert [list(request) for request in requests] == [[key], [key]]
    assert all(request[key] is value for request in requests)
    assert requested(simulator) == {key: value}


@by_truth
@pytest.mark.parametrize("truth", [True, False])
def test_argument_truth_is_tested_once(
    simulator: Simulator, module: ModuleType, function: str, key: str, truth: bool
) -> None:
    value = CountingInt(9)
    value.truth = truth
    getattr(module, function)(value)
    assert value.bool_calls == 1
    assert requested(simulator) == ({key: 9} if truth else {})


@by_truth
def test_argument_truth_error_is_at_request_line(
    simulator: Simulator, module: ModuleType, function: str, key: str
) -> None:
    value = CountingInt(9)
    value.truth = error = LookupError("no truth")
    made = Recorder()
    simulator.on_create = made
    assert raises_exactly(LookupError, getattr(module, function), value) is error
    assert line(error, function) == FIRST_LINES[function] + 1
    assert made.calls == []


@pytest.mark.parametrize(
    "function, native, port, request_sent",
    [
        ("list_switch_port_statistics", "build_switch_port_statistics", None, {}),
        ("list_switch_port_statistics", "build_switch_port_statistics", "", {"port_name": ""}),
        ("list_switch_port_statistics", "build_switch_port_statistics", "p", {"port_name": "p"}),
        ("list_switch_lldp_state", "build_switch_lldp_state", None, {}),
        ("list_switch_lldp_state", "build_switch_lldp_state", "", {"port_name": ""}),
        ("list_switch_lldp_state", "build_switch_lldp_state", "p\u00e9", {"port_name": "p\u00e9"}),
        ("list_switch_igmp_snooping_group", "build_switch_igmp_snooping_group", None, {}),
        ("list_switch_igmp_snooping_group", "build_switch_igmp_snooping_group", "", {}),
        (
            "list_switch_igmp_snooping_group",
            "build_switch_igmp_snooping_group",
            " ",
            {"port_name": " "},
        ),
    ],
)
def test_port_name_none_sends_empty_request(
    simulator: Simulator,
    module: ModuleType,
    function: str,
    native: str,
    port: str | None,
    request_sent: dict[str, str],
) -> None:
    made = Recorder()
    simulator.on_create = made
    simulator.set_reply(native, {"ports": [port]})
    assert getattr(module, function)(port) == {"ports": [port]}
    assert without_releases(simulator) == [(native, request_sent)]
    request = made.positional[0][0][0]
    assert request == request_sent
    if request_sent:
        assert request["port_name"] is port


@typed
@pytest.mark.parametrize(
    "port",
    [5, b"port1", StrSubclass("port1"), ["port1"], True],
    ids=lambda port: type(port).__name__,
)
def test_non_str_port_name_raises_before_request(
    simulator: Simulator,
    module: ModuleType,
    function: str,
    native: str,
    empty: dict[str, str],
    port: object,
) -> None:
    made = Recorder()
    simulator.on_create = made
    error = raises_exactly(TypeError, getattr(module, function), port)
    assert str(error) == wrong_type_message("port_name", "str", port)
    found = entry(error, function)
    assert found.line == found.first_line == FIRST_LINES[function]
    assert made.calls == []
    assert simulator.call_log == []


def test_int_port_name_raises_exact_message(module: ModuleType) -> None:
    error = raises_exactly(TypeError, module.list_switch_port_statistics, 5)
    assert str(error) == "Argument 'port_name' has incorrect type (expected str, got int)"


@by_truth
def test_argument_error_is_at_first_line(module: ModuleType, function: str, key: str) -> None:
    error = raises_exactly(TypeError, getattr(module, function), 1, 2)
    assert str(error) == f"{function}() takes at most 1 positional argument (2 given)"
    assert line(error, function) == FIRST_LINES[function]


@pytest.mark.parametrize("blank", [None, RawJSON('{"x": 1}')], ids=["null", "object"])
def test_mclag_queries_return_untouched_response(
    simulator: Simulator, module: ModuleType, blank: RawJSON | None
) -> None:
    simulator.default_response = blank
    expected = None if blank is None else {"x": 1}
    results = [
        module.list_switch_mclag_list(),
        module.list_switch_mclag_list("x"),
        module.switch_mclag_icl(),
    ]
    assert results == [expected] * 3
    assert without_releases(simulator) == []


def test_module_summary_calls_plural_service_name(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply("build_switch_modules_summary", {"modules": 2})
    assert module.list_switch_module_summary() == {"modules": 2}
    assert without_releases(simulator) == [("build_switch_modules_summary", {})]


@pytest.mark.parametrize(
    "function, native",
    [
        ("list_switch_lg_state", "build_switch_lg_state"),
        ("list_switch_flapguard_status", "build_switch_flapguard_status"),
        ("list_switch_module_summary", "build_switch_modules_summary"),
    ],
)
def test_no_args_query_returns_whole_reply(
    simulator: Simulator, module: ModuleType, function: str, native: str
) -> None:
    reply = {"statuses": [{"trunks": 1}], "data": {}}
    simulator.set_reply(native, reply)
    assert getattr(module, function)() == reply
    assert without_releases(simulator) == [(native, {})]
