"""The JSON bridge under every bridged function, row by row, and the ACL counter queries: what
crosses in which order, what comes back, and the line of every statement that fails."""

from __future__ import annotations

import json
from types import ModuleType, SimpleNamespace
from typing import Any

import pytest
import ujson

from tests.support.assertions import entry, line, raises_exactly, traceback_entries, with_types
from tests.support.doubles import CountingInt, Failure, Recorder, raiser
from tests.support.query_cases import (
    FIRST_LINES,
    QueryCase,
    every_native_query,
    every_query,
    every_query_without_native,
    native_calls,
    prepare,
    without_releases,
)
from veldarin_simulator import RawJSON, Simulator

# Success


@every_query
def test_query_releases_request_before_response(
    simulator: Simulator, module: ModuleType, row: QueryCase
) -> None:
    prepare(simulator, row)
    result = row.call(module)
    assert with_types(result) == with_types(row.select(row.reply))
    assert native_calls(simulator) == [
        *row.sent,
        ("JSONObject.release", row.request),
        ("JSONObject.release", row.reply),
    ]


@every_native_query
def test_context_and_third_pointer_are_null(
    simulator: Simulator, module: ModuleType, row: QueryCase
) -> None:
    prepare(simulator, row)
    row.call(module)
    (call,) = [call for call in simulator.call_log if call.service == row.native]
    assert (call.context, call.third, call.text) == (None, None, None)


@every_query
def test_request_gets_dict_and_response_gets_none(
    simulator: Simulator, module: ModuleType, row: QueryCase
) -> None:
    prepare(simulator, row)
    made = Recorder()
    simulator.on_create = made
    row.call(module)
    row.call(module)
    arguments = [args for (args,) in made.positional]
    assert arguments == [(row.request,), (), (row.request,), ()]
    assert type(arguments[0][0]) is dict
    assert arguments[0][0] is not arguments[2][0], "a fresh dictionary for every call"


@every_query
def test_parsed_value_is_returned_itself(
    simulator: Simulator, module: ModuleType, row: QueryCase, monkeypatch: pytest.MonkeyPatch
) -> None:
    prepare(simulator, row)
    parsed = [{"interface": [{"name": row.request.get("name")}]}]
    loads = Recorder(lambda text: parsed)
    monkeypatch.setattr(module, "json", SimpleNamespace(loads=loads))
    assert row.call(module) is row.select(parsed)
    ((text,),) = loads.positional
    assert type(text) is bytes
    assert json.loads(text) == row.reply


@every_query_without_native
def test_untouched_response_is_none_or_default(
    simulator: Simulator, module: ModuleType, row: QueryCase
) -> None:
    assert row.call(module) is None
    simulator.default_response = RawJSON('{"x": 1}')
    assert row.call(module) == {"x": 1}
    assert without_releases(simulator) == []


@every_native_query
def test_null_reply_is_none(simulator: Simulator, module: ModuleType, row: QueryCase) -> None:
    simulator.set_reply(str(row.native), None)
    simulator.default_response = RawJSON('{"replaced": true}')
    if row.function == "list_system_interface_physical":
        error = raises_exactly(TypeError, row.call, module)
        assert str(error) == "'NoneType' object is not subscriptable"
    else:
        assert row.call(module) is None
        assert native_calls(simulator)[-1] == ("JSONObject.release", None)
    assert without_releases(simulator) == row.sent


@pytest.mark.parametrize(
    "reply",
    [
        None,
        True,
        0,
        -5,
        2**62,
        1.5,
        "",
        'text with \u00fc, \u20ac, \U0001f600 and \\ " / \n',
        [],
        {},
        {"z": 1, "a": {"m": [], "b": {}}, "k": [[1], [None, "x"]]},
        [{"port": f"port{number}", "bytes": number} for number in range(200)],
    ],
    ids=lambda reply: json.dumps(reply)[:30],
)
def test_reply_of_each_shape_is_returned(
    simulator: Simulator, module: ModuleType, reply: object
) -> None:
    simulator.set_reply("build_switch_lg_state", reply)
    assert with_types(module.list_switch_lg_state()) == with_types(reply)


@pytest.mark.parametrize("text", ['{"a": 1, "a": 2}', " [1 ,2.50]\n", '"\\u00e9\\ud83d\\ude00"'])
def test_loads_gets_rendered_text(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, text: str
) -> None:
    loads = Recorder(ujson.loads)
    monkeypatch.setattr(module, "json", SimpleNamespace(loads=loads))
    simulator.set_reply("build_switch_lg_state", RawJSON(text))
    assert module.list_switch_lg_state() == json.loads(text)
    assert loads.positional == [(text.encode(),)]


def test_rendered_text_ends_at_first_nul(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply("build_switch_lg_state", RawJSON("[1]\0[2]"))
    assert module.list_switch_lg_state() == [1]


def test_reply_may_depend_on_request(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply("build_switch_stp_state", lambda request: {"asked": request})
    for instance in (0, 1, "two"):
        assert module.list_switch_stp_state(instance) == {"asked": {"instance_id": instance}}


# The parser is looked up when it is needed


@every_native_query
def test_json_is_looked_up_after_native_call(
    simulator: Simulator, module: ModuleType, row: QueryCase, monkeypatch: pytest.MonkeyPatch
) -> None:
    parsed = [{"interface": [{"name": "port1"}]}]

    def answer(request: object) -> object:
        monkeypatch.setattr(module, "json", SimpleNamespace(loads=lambda text: parsed))
        return row.reply

    simulator.set_reply(str(row.native), answer)
    assert row.call(module) is row.select(parsed)


SERIALIZER = "json_object_to_json_string"


@every_query
def test_loads_is_looked_up_before_rendering(
    simulator: Simulator, module: ModuleType, row: QueryCase, monkeypatch: pytest.MonkeyPatch
) -> None:
    prepare(simulator, row)
    simulator.record_serializer()
    calls_at: dict[str, list[tuple[str, Any]]] = {}

    def loads(text: bytes) -> Any:
        calls_at["call"] = native_calls(simulator)
        return ujson.loads(text)

    class Parser:
        @property
        def loads(self) -> object:
            calls_at["lookup"] = native_calls(simulator)
            return loads

    monkeypatch.setattr(module, "json", Parser())
    row.call(module)
    assert calls_at["lookup"] == row.sent
    assert calls_at["call"] == [*row.sent, (SERIALIZER, row.reply)]
    assert native_calls(simulator) == [
        *row.sent,
        (SERIALIZER, row.reply),
        ("JSONObject.release", row.request),
        ("JSONObject.release", row.reply),
    ]


# Failures, one statement after the other


@every_query
@pytest.mark.parametrize("missing", ["json", "loads"])
def test_missing_loads_leaves_reply_unrendered(
    simulator: Simulator,
    module: ModuleType,
    row: QueryCase,
    monkeypatch: pytest.MonkeyPatch,
    missing: str,
) -> None:
    prepare(simulator, row)
    simulator.record_serializer()
    if missing == "json":
        monkeypatch.delattr(module, "json")
    else:
        monkeypatch.setattr(module, "json", SimpleNamespace())
    raises_exactly(NameError if missing == "json" else AttributeError, row.call, module)
    assert native_calls(simulator) == row.sent


def nth_fails(number: int, error: BaseException) -> Recorder:
    """A recorder whose call of this number raises."""

    def answer(*args: object) -> None:
        if len(recorder.calls) == number:
            raise error

    recorder = Recorder(answer)
    return recorder


@every_query
def test_failing_request_creation_propagates(
    simulator: Simulator, module: ModuleType, row: QueryCase
) -> None:
    error = Failure()
    simulator.on_create = nth_fails(1, error)
    assert raises_exactly(Failure, row.call, module) is error
    assert line(error, row.function) == row.lines.request
    assert simulator.call_log == []


@every_query
def test_failing_response_creation_propagates(
    simulator: Simulator, module: ModuleType, row: QueryCase
) -> None:
    error = Failure()
    simulator.on_create = nth_fails(2, error)
    assert raises_exactly(Failure, row.call, module) is error
    assert line(error, row.function) == row.lines.response
    assert simulator.call_log == []


@every_query
def test_missing_json_raises_after_native_call(
    simulator: Simulator, module: ModuleType, row: QueryCase, monkeypatch: pytest.MonkeyPatch
) -> None:
    prepare(simulator, row)
    monkeypatch.delattr(module, "json")
    error = raises_exactly(NameError, row.call, module)
    assert str(error) == "name 'json' is not defined"
    assert line(error, row.function) == row.lines.parse
    assert native_calls(simulator) == row.sent


@every_query
def test_json_without_loads_raises_attribute_error(
    simulator: Simulator, module: ModuleType, row: QueryCase, monkeypatch: pytest.MonkeyPatch
) -> None:
    prepare(simulator, row)
    monkeypatch.setattr(module, "json", SimpleNamespace())
    error = raises_exactly(AttributeError, row.call, module)
    assert str(error) == "'types.SimpleNamespace' object has no attribute 'loads'"
    assert line(error, row.function) == row.lines.parse
    assert native_calls(simulator) == row.sent


@every_query
def test_failing_loads_makes_no_release_call(
    simulator: Simulator, module: ModuleType, row: QueryCase, monkeypatch: pytest.MonkeyPatch
) -> None:
    prepare(simulator, row)
    error = Failure()
    monkeypatch.setattr(module, "json", SimpleNamespace(loads=raiser(error)))
    assert raises_exactly(Failure, row.call, module) is error
    assert line(error, row.function) == row.lines.parse
    assert native_calls(simulator) == row.sent


@every_query
@pytest.mark.parametrize("text", ["{oops", "", "[1,", "nul"])
def test_invalid_json_raises_error_of_parser(
    simulator: Simulator, module: ModuleType, row: QueryCase, text: str
) -> None:
    expected = raises_exactly(ujson.JSONDecodeError, ujson.loads, text.encode())
    if row.native:
        simulator.set_reply(row.native, RawJSON(text))
    else:
        simulator.default_response = RawJSON(text)
    error = raises_exactly(ujson.JSONDecodeError, row.call, module)
    assert error.args == expected.args
    assert line(error, row.function) == row.lines.parse
    assert native_calls(simulator) == row.sent


@every_query
@pytest.mark.parametrize("number", [1, 2])
def test_failing_release_propagates(
    simulator: Simulator, module: ModuleType, row: QueryCase, number: int
) -> None:
    prepare(simulator, row)
    error = Failure()
    released = nth_fails(number, error)
    simulator.on_release = released
    assert raises_exactly(Failure, row.call, module) is error
    expected = row.lines.first_release if number == 1 else row.lines.second_release
    assert line(error, row.function) == expected
    texts = [json.loads(text) for (text,) in released.positional]
    assert texts == [row.request, row.reply][:number]


STEPS = [
    "request",
    "response",
    "loads lookup",
    "loads",
    "release of the request",
    "release of the response",
]


@every_query
@pytest.mark.parametrize("failing", STEPS)
def test_failing_step_is_not_retried(
    simulator: Simulator,
    module: ModuleType,
    row: QueryCase,
    monkeypatch: pytest.MonkeyPatch,
    failing: str,
) -> None:
    """Every step up to the failing one runs exactly once, and none after it."""
    steps: list[str] = []

    def step(name: str) -> None:
        steps.append(name)
        # Only the first attempt fails: a second one would go through.
        if name == failing and steps.count(name) == 1:
            raise error

    def loads(text: bytes) -> Any:
        step("loads")
        return ujson.loads(text)

    class Parser:
        @property
        def loads(self) -> object:
            step("loads lookup")
            return loads

    error = Failure()
    prepare(simulator, row)
    monkeypatch.setattr(module, "json", Parser())
    simulator.on_create = lambda arguments: step("request" if arguments else "response")
    releases = iter(["release of the request", "release of the response"])
    simulator.on_release = lambda text: step(next(releases))
    assert raises_exactly(Failure, row.call, module) is error
    assert steps == STEPS[: STEPS.index(failing) + 1]
    assert without_releases(simulator) == (row.sent if "loads lookup" in steps else [])


@every_query
def test_reply_is_rendered_once_when_loads_fails(
    simulator: Simulator, module: ModuleType, row: QueryCase, monkeypatch: pytest.MonkeyPatch
) -> None:
    prepare(simulator, row)
    simulator.record_serializer()
    loads = nth_fails(1, Failure())
    monkeypatch.setattr(module, "json", SimpleNamespace(loads=loads))
    raises_exactly(Failure, row.call, module)
    assert len(loads.calls) == 1
    assert native_calls(simulator) == [*row.sent, (SERIALIZER, row.reply)]


@every_query
def test_failure_has_one_entry_of_function(
    simulator: Simulator, module: ModuleType, row: QueryCase
) -> None:
    error = Failure()
    simulator.on_create = raiser(error)
    raises_exactly(Failure, row.call, module)
    (found,) = traceback_entries(error.__traceback__)
    assert found.function == row.function
    assert found.first_line < row.lines.request
    if row.function in FIRST_LINES:
        assert found.first_line == FIRST_LINES[row.function]


# The ACL counters

ACL = [
    ("switch_acl_ingress_counter", "build_switch_acl_ingress_stats", 95),
    ("switch_acl_egress_counter", None, 105),
    ("switch_acl_prelookup_counter", None, 115),
]
every_acl_counter = pytest.mark.parametrize(
    "function, native, request_line", ACL, ids=[function for function, _, _ in ACL]
)


def requested(simulator: Simulator) -> Any:
    """The request of the last call, as the sibling module was given it."""
    return [data for service, data in native_calls(simulator) if service == "JSONObject.release"][
        -2
    ]


@every_acl_counter
@pytest.mark.parametrize("policy", [0, "", None, False, 0.0, [], {}, ()], ids=repr)
def test_false_policy_sends_empty_request(
    simulator: Simulator,
    module: ModuleType,
    function: str,
    native: str | None,
    request_line: int,
    policy: object,
) -> None:
    getattr(module, function)(policy)
    assert requested(simulator) == {}
    assert without_releases(simulator) == ([(native, {})] if native else [])


@every_acl_counter
@pytest.mark.parametrize("policy", [7, -1, "0", True, 1.5, [0], {"a": 1}], ids=repr)
@pytest.mark.parametrize("keyword", [False, True], ids=["by position", "by keyword"])
def test_true_policy_is_sent_unchanged(
    simulator: Simulator,
    module: ModuleType,
    function: str,
    native: str | None,
    request_line: int,
    policy: object,
    keyword: bool,
) -> None:
    made = Recorder()
    simulator.on_create = made
    if keyword:
        getattr(module, function)(policy_id=policy)
    else:
        getattr(module, function)(policy)
    (((request,),), _response) = made.positional
    assert list(request) == ["policy_id"]
    assert request["policy_id"] is policy
    assert with_types(requested(simulator)) == with_types({"policy_id": policy})
    assert without_releases(simulator) == ([(native, {"policy_id": policy})] if native else [])


@every_acl_counter
@pytest.mark.parametrize("truth", [True, False])
def test_policy_truth_is_tested_once_before_request(
    simulator: Simulator,
    module: ModuleType,
    function: str,
    native: str | None,
    request_line: int,
    truth: bool,
) -> None:
    policy = CountingInt(5)
    policy.truth = truth
    made = Recorder(lambda args: asked.append(policy.bool_calls))
    asked: list[int] = []
    simulator.on_create = made
    getattr(module, function)(policy)
    assert asked == [1, 1]
    assert policy.bool_calls == 1
    assert requested(simulator) == ({"policy_id": 5} if truth else {})


@every_acl_counter
def test_policy_truth_error_is_at_request_line(
    simulator: Simulator, module: ModuleType, function: str, native: str | None, request_line: int
) -> None:
    error = Failure()
    policy = CountingInt(5)
    policy.truth = error
    made = Recorder()
    simulator.on_create = made
    assert raises_exactly(Failure, getattr(module, function), policy) is error
    assert line(error, function) == request_line
    assert made.calls == []
    assert simulator.call_log == []


@every_acl_counter
def test_unserializable_policy_raises_sibling_error(
    simulator: Simulator, module: ModuleType, function: str, native: str | None, request_line: int
) -> None:
    error = raises_exactly(TypeError, getattr(module, function), object())
    assert line(error, function) == request_line
    assert simulator.call_log == []


@pytest.mark.parametrize("function", ["switch_acl_egress_counter", "switch_acl_prelookup_counter"])
def test_counters_without_service_ignore_policy(
    simulator: Simulator, module: ModuleType, function: str
) -> None:
    simulator.default_response = RawJSON('{"counters": []}')
    assert getattr(module, function)(5) == getattr(module, function)() == {"counters": []}
    assert without_releases(simulator) == []


@every_acl_counter
@pytest.mark.parametrize(
    "positional, keywords, text",
    [
        ((1, 2), {}, "{}() takes at most 1 positional argument (2 given)"),
        ((), {"foo": 1}, "{}() got an unexpected keyword argument 'foo'"),
        ((1,), {"policy_id": 2}, "{}() got multiple values for keyword argument 'policy_id'"),
    ],
)
def test_argument_error_is_at_first_line(
    simulator: Simulator,
    module: ModuleType,
    function: str,
    native: str | None,
    request_line: int,
    positional: tuple[object, ...],
    keywords: dict[str, object],
    text: str,
) -> None:
    error = raises_exactly(TypeError, getattr(module, function), *positional, **keywords)
    assert str(error) == text.format(function)
    found = entry(error, function)
    assert found.line == found.first_line == FIRST_LINES[function]
    assert simulator.call_log == []
