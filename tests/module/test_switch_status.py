"""The managed-switch queries: the request for each kind of argument."""

from __future__ import annotations

from types import ModuleType

import pytest

from tests.support.assertions import line, raises_exactly, with_types
from tests.support.doubles import CountingInt, Recorder
from tests.support.function_table import NAMED
from tests.support.query_cases import QUERY_CASES, sent_request, without_releases
from veldarin_simulator import Simulator

# Queries that send their argument if it is true: function, parameter, native service
IF_TRUE = [
    (case.function, key, case.native)
    for case in QUERY_CASES
    if NAMED[case.function].required == 0
    for key in case.request
]

by_truth = pytest.mark.parametrize("function, key, native", IF_TRUE, ids=[f for f, *_ in IF_TRUE])


def test_five_queries_send_true_arguments() -> None:
    assert [function for function, _key, _native in IF_TRUE] == [
        "switch_acl_ingress_counter",
        "switch_acl_egress_counter",
        "switch_acl_prelookup_counter",
        "list_switch_trunk_state",
        "list_switch_mclag_list",
    ]


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
    instance.truth = AssertionError("truth test")
    made = simulator.on_create = Recorder()
    module.list_switch_stp_state(instance)
    assert made.positional[0][0][0]["instance_id"] is instance
    assert instance.bool_calls == 0


@by_truth
@pytest.mark.parametrize(
    "value",
    [0, "", None, False, 0.0, [], {}, (), 7, -1, "0", "t1", True, 1.5, [0], {"a": 1}],
    ids=repr,
)
def test_argument_is_sent_under_its_key_if_true(
    simulator: Simulator, module: ModuleType, function: str, key: str, native: str, value: object
) -> None:
    made = simulator.on_create = Recorder()
    expected = {key: value} if value else {}
    getattr(module, function)(value)
    getattr(module, function)(**{key: value})
    assert without_releases(simulator) == ([(native, expected)] * 2 if native else [])
    requests = [args[0] for (args,) in made.positional if args]
    assert [list(request) for request in requests] == [[*expected], [*expected]]
    assert all(sent is value for request in requests for sent in request.values())
    assert with_types(sent_request(simulator)) == with_types(expected)


@by_truth
@pytest.mark.parametrize("truth", [True, False])
def test_argument_truth_is_tested_once_before_request(
    simulator: Simulator, module: ModuleType, function: str, key: str, native: str, truth: bool
) -> None:
    value = CountingInt(9)
    value.truth = truth
    bool_calls: list[int] = []
    simulator.on_create = lambda args: bool_calls.append(value.bool_calls)
    getattr(module, function)(value)
    assert (bool_calls, value.bool_calls) == ([1, 1], 1)
    assert sent_request(simulator) == ({key: 9} if truth else {})


@by_truth
def test_failing_argument_is_at_request_line(
    simulator: Simulator, module: ModuleType, function: str, key: str, native: str
) -> None:
    no_truth = CountingInt(9)
    no_truth.truth = error = LookupError("no truth")
    made = simulator.on_create = Recorder()
    assert raises_exactly(LookupError, getattr(module, function), no_truth) is error
    assert made.calls == []
    not_json = raises_exactly(TypeError, getattr(module, function), object())
    at = NAMED[function].first_line[0] + 1
    assert [line(error, function), line(not_json, function)] == [at, at]
    assert simulator.call_log == []


@pytest.mark.parametrize(
    "query, port, request_sent",
    [
        ("switch_port_statistics", None, {}),
        ("switch_port_statistics", "", {"port_name": ""}),
        ("switch_port_statistics", "p", {"port_name": "p"}),
        ("switch_lldp_state", None, {}),
        ("switch_lldp_state", "", {"port_name": ""}),
        ("switch_lldp_state", "p\u00e9", {"port_name": "p\u00e9"}),
        ("switch_igmp_snooping_group", None, {}),
        ("switch_igmp_snooping_group", "", {}),
        ("switch_igmp_snooping_group", " ", {"port_name": " "}),
    ],
)
def test_port_name_none_sends_empty_request(
    simulator: Simulator,
    module: ModuleType,
    query: str,
    port: str | None,
    request_sent: dict[str, str],
) -> None:
    native = f"build_{query}"
    made = simulator.on_create = Recorder()
    simulator.set_reply(native, {"ports": [port]})
    assert getattr(module, f"list_{query}")(port) == {"ports": [port]}
    assert without_releases(simulator) == [(native, request_sent)]
    request = made.positional[0][0][0]
    assert request == request_sent
    if request_sent:
        assert request["port_name"] is port
