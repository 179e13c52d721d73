"""The JSON bridge under every bridged function, row by row, and the ACL counter queries: what
crosses in which order, what comes back, and the line of every statement that fails."""

from __future__ import annotations

import json
from types import ModuleType, SimpleNamespace
from typing import Any

import pytest
import ujson

from tests.support.assertions import (
    Number,
    Recorder,
    entry,
    failure,
    line,
    raising,
    taken_apart,
    traceback_entries,
)
from tests.support.query_cases import (
    FIRST_LINES,
    Row,
    crossings,
    every_native_row,
    every_row,
    every_row_without_native,
    natively,
    prepare,
)
from veldarin_simulator import RawJSON, Simulator

# Success


@every_row
def test_request_native_call_then_both_releases_request_first(
    simulator: Simulator, module: ModuleType, row: Row
) -> None:
    prepare(simulator, row)
    result = row.call(module)
    assert taken_apart(result) == taken_apart(row.picks(row.reply))
    assert crossings(simulator) == [
        *row.sent,
        ("JSONObject.release", row.request),
        ("JSONObject.release", row.reply),
    ]


@every_native_row
def test_the_context_and_the_third_pointer_are_null(
    simulator: Simulator, module: ModuleType, row: Row
) -> None:
    prepare(simulator, row)
    row.call(module)
    (call,) = [call for call in simulator.call_log if call.service == row.native]
    assert (call.context, call.third, call.text) == (None, None, None)


@every_row
def test_one_dictionary_and_then_nothing_makes_the_two_objects(
    simulator: Simulator, module: ModuleType, row: Row
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


@every_row
def test_the_parsed_value_is_returned_itself(
    simulator: Simulator, module: ModuleType, row: Row, monkeypatch: pytest.MonkeyPatch
) -> None:
    prepare(simulator, row)
    parsed = [{"interface": [{"name": row.request.get("name")}]}]
    loads = Recorder(lambda text: parsed)
    monkeypatch.setattr(module, "json", SimpleNamespace(loads=loads))
    assert row.call(module) is row.picks(parsed)
    ((text,),) = loads.positional
    assert type(text) is bytes
    assert json.loads(text) == row.reply


@every_row_without_native
def test_an_untouched_response_parses_to_none_unless_the_sibling_holds_something(
    simulator: Simulator, module: ModuleType, row: Row
) -> None:
    assert row.call(module) is None
    simulator.default_response = RawJSON('{"x": 1}')
    assert row.call(module) == {"x": 1}
    assert natively(simulator) == []


@every_native_row
def test_a_null_reply_is_parsed_as_none(simulator: Simulator, module: ModuleType, row: Row) -> None:
    simulator.set_reply(str(row.native), None)
    simulator.default_response = RawJSON('{"replaced": true}')
    if row.function == "list_system_interface_physical":
        error = failure(TypeError, row.call, module)
        assert str(error) == "'NoneType' object is not subscriptable"
    else:
        assert row.call(module) is None
        assert crossings(simulator)[-1] == ("JSONObject.release", None)
    assert natively(simulator) == row.sent


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
def test_replies_of_every_shape_come_back_whole(
    simulator: Simulator, module: ModuleType, reply: object
) -> None:
    simulator.set_reply("build_switch_lg_state", reply)
    assert taken_apart(module.list_switch_lg_state()) == taken_apart(reply)


@pytest.mark.parametrize("text", ['{"a": 1, "a": 2}', " [1 ,2.50]\n", '"\\u00e9\\ud83d\\ude00"'])
def test_the_parser_gets_the_text_as_rendered(
    simulator: Simulator, module: ModuleType, monkeypatch: pytest.MonkeyPatch, text: str
) -> None:
    loads = Recorder(ujson.loads)
    monkeypatch.setattr(module, "json", SimpleNamespace(loads=loads))
    simulator.set_reply("build_switch_lg_state", RawJSON(text))
    assert module.list_switch_lg_state() == json.loads(text)
    assert loads.positional == [(text.encode(),)]


def test_the_text_ends_at_its_first_nul(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply("build_switch_lg_state", RawJSON("[1]\0[2]"))
    assert module.list_switch_lg_state() == [1]


def test_the_answer_may_depend_on_the_request(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply("build_switch_stp_state", lambda request: {"asked": request})
    for instance in (0, 1, "two"):
        assert module.list_switch_stp_state(instance) == {"asked": {"instance_id": instance}}


# The parser is looked up when it is needed


@every_native_row
def test_the_parser_is_looked_up_after_the_native_call(
    simulator: Simulator, module: ModuleType, row: Row, monkeypatch: pytest.MonkeyPatch
) -> None:
    parsed = [{"interface": [{"name": "port1"}]}]

    def answer(request: object) -> object:
        monkeypatch.setattr(module, "json", SimpleNamespace(loads=lambda text: parsed))
        return row.reply

    simulator.set_reply(str(row.native), answer)
    assert row.call(module) is row.picks(parsed)


SERIALIZER = "json_object_to_json_string"


@every_row
def test_loads_is_looked_up_before_the_reply_is_rendered(
    simulator: Simulator, module: ModuleType, row: Row, monkeypatch: pytest.MonkeyPatch
) -> None:
    prepare(simulator, row)
    simulator.record_serializer()
    calls_at: dict[str, list[tuple[str, Any]]] = {}

    def loads(text: bytes) -> Any:
        calls_at["call"] = crossings(simulator)
        return ujson.loads(text)

    class Parser:
        @property
        def loads(self) -> object:
            calls_at["lookup"] = crossings(simulator)
            return loads

    monkeypatch.setattr(module, "json", Parser())
    row.call(module)
    assert calls_at["lookup"] == row.sent
    assert calls_at["call"] == [*row.sent, (SERIALIZER, row.reply)]
    assert crossings(simulator) == [
        *row.sent,
        (SERIALIZER, row.reply),
        ("JSONObject.release", row.request),
        ("JSONObject.release", row.reply),
    ]


# Failures, one statement after the other


class Failed(Exception):
    """Only the tests raise it."""


@every_row
@pytest.mark.parametrize("missing", ["json", "loads"])
def test_missing_loads_leaves_the_reply_unrendered(
    simulator: Simulator,
    module: ModuleType,
    row: Row,
    monkeypatch: pytest.MonkeyPatch,
    missing: str,
) -> None:
    prepare(simulator, row)
    simulator.record_serializer()
    if missing == "json":
        monkeypatch.delattr(module, "json")
    else:
        monkeypatch.setattr(module, "json", SimpleNamespace())
    failure(NameError if missing == "json" else AttributeError, row.call, module)
    assert crossings(simulator) == row.sent


def nth_fails(number: int, error: BaseException) -> Recorder:
    """A recorder whose call of this number raises."""

    def answer(*args: object) -> None:
        if len(recorder.calls) == number:
            raise error

    recorder = Recorder(answer)
    return recorder


@every_row
def test_a_request_that_cannot_be_made_ends_the_call(
    simulator: Simulator, module: ModuleType, row: Row
) -> None:
    error = Failed()
    simulator.on_create = nth_fails(1, error)
    assert failure(Failed, row.call, module) is error
    assert line(error, row.function) == row.lines.request
    assert simulator.call_log == []


@every_row
def test_a_response_that_cannot_be_made_ends_the_call(
    simulator: Simulator, module: ModuleType, row: Row
) -> None:
    error = Failed()
    simulator.on_create = nth_fails(2, error)
    assert failure(Failed, row.call, module) is error
    assert line(error, row.function) == row.lines.response
    assert simulator.call_log == []


@every_row
def test_without_the_parsers_global_the_call_ends_after_the_native_call(
    simulator: Simulator, module: ModuleType, row: Row, monkeypatch: pytest.MonkeyPatch
) -> None:
    prepare(simulator, row)
    monkeypatch.delattr(module, "json")
    error = failure(NameError, row.call, module)
    assert str(error) == "name 'json' is not defined"
    assert line(error, row.function) == row.lines.parse
    assert crossings(simulator) == row.sent


@every_row
def test_a_parser_without_loads_is_an_attribute_error(
    simulator: Simulator, module: ModuleType, row: Row, monkeypatch: pytest.MonkeyPatch
) -> None:
    prepare(simulator, row)
    monkeypatch.setattr(module, "json", SimpleNamespace())
    error = failure(AttributeError, row.call, module)
    assert str(error) == "'types.SimpleNamespace' object has no attribute 'loads'"
    assert line(error, row.function) == row.lines.parse
    assert crossings(simulator) == row.sent


@every_row
def test_a_failing_parser_ends_the_call_without_a_release(
    simulator: Simulator, module: ModuleType, row: Row, monkeypatch: pytest.MonkeyPatch
) -> None:
    prepare(simulator, row)
    error = Failed()
    monkeypatch.setattr(module, "json", SimpleNamespace(loads=raising(error)))
    assert failure(Failed, row.call, module) is error
    assert line(error, row.function) == row.lines.parse
    assert crossings(simulator) == row.sent


@every_row
@pytest.mark.parametrize("text", ["{oops", "", "[1,", "nul"])
def test_invalid_json_raises_what_the_parser_raises(
    simulator: Simulator, module: ModuleType, row: Row, text: str
) -> None:
    expected = failure(ujson.JSONDecodeError, ujson.loads, text.encode())
    if row.native:
        simulator.set_reply(row.native, RawJSON(text))
    else:
        simulator.default_response = RawJSON(text)
    error = failure(ujson.JSONDecodeError, row.call, module)
    assert error.args == expected.args
    assert line(error, row.function) == row.lines.parse
    assert crossings(simulator) == row.sent


@every_row
@pytest.mark.parametrize("number", [1, 2])
def test_a_failing_release_ends_the_call(
    simulator: Simulator, module: ModuleType, row: Row, number: int
) -> None:
    prepare(simulator, row)
    error = Failed()
    released = nth_fails(number, error)
    simulator.on_release = released
    assert failure(Failed, row.call, module) is error
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


@every_row
@pytest.mark.parametrize("failing", STEPS)
def test_failing_step_is_not_retried(
    simulator: Simulator,
    module: ModuleType,
    row: Row,
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

    error = Failed()
    prepare(simulator, row)
    monkeypatch.setattr(module, "json", Parser())
    simulator.on_create = lambda arguments: step("request" if arguments else "response")
    releases = iter(["release of the request", "release of the response"])
    simulator.on_release = lambda text: step(next(releases))
    assert failure(Failed, row.call, module) is error
    assert steps == STEPS[: STEPS.index(failing) + 1]
    assert natively(simulator) == (row.sent if "loads lookup" in steps else [])


@every_row
def test_reply_is_rendered_once_when_loads_fails(
    simulator: Simulator, module: ModuleType, row: Row, monkeypatch: pytest.MonkeyPatch
) -> None:
    prepare(simulator, row)
    simulator.record_serializer()
    loads = nth_fails(1, Failed())
    monkeypatch.setattr(module, "json", SimpleNamespace(loads=loads))
    failure(Failed, row.call, module)
    assert len(loads.calls) == 1
    assert crossings(simulator) == [*row.sent, (SERIALIZER, row.reply)]


@every_row
def test_a_failure_leaves_one_entry_at_the_functions_first_line(
    simulator: Simulator, module: ModuleType, row: Row
) -> None:
    error = Failed()
    simulator.on_create = raising(error)
    failure(Failed, row.call, module)
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
    return [data for service, data in crossings(simulator) if service == "JSONObject.release"][-2]


@every_acl_counter
@pytest.mark.parametrize("policy", [0, "", None, False, 0.0, [], {}, ()], ids=repr)
def test_a_false_policy_sends_the_empty_request(
    simulator: Simulator,
    module: ModuleType,
    function: str,
    native: str | None,
    request_line: int,
    policy: object,
) -> None:
    getattr(module, function)(policy)
    assert requested(simulator) == {}
    assert natively(simulator) == ([(native, {})] if native else [])


@every_acl_counter
@pytest.mark.parametrize("policy", [7, -1, "0", True, 1.5, [0], {"a": 1}], ids=repr)
@pytest.mark.parametrize("keyword", [False, True], ids=["by position", "by keyword"])
def test_a_true_policy_is_sent_unchanged(
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
    assert taken_apart(requested(simulator)) == taken_apart({"policy_id": policy})
    assert natively(simulator) == ([(native, {"policy_id": policy})] if native else [])


@every_acl_counter
@pytest.mark.parametrize("truth", [True, False])
def test_the_policys_truth_is_asked_once_before_the_request_is_made(
    simulator: Simulator,
    module: ModuleType,
    function: str,
    native: str | None,
    request_line: int,
    truth: bool,
) -> None:
    policy = Number(5)
    policy.truth = truth
    made = Recorder(lambda args: asked.append(policy.asked))
    asked: list[int] = []
    simulator.on_create = made
    getattr(module, function)(policy)
    assert asked == [1, 1]
    assert policy.asked == 1
    assert requested(simulator) == ({"policy_id": 5} if truth else {})


@every_acl_counter
def test_a_failing_truth_is_reported_at_the_request(
    simulator: Simulator, module: ModuleType, function: str, native: str | None, request_line: int
) -> None:
    error = Failed()
    policy = Number(5)
    policy.truth = error
    made = Recorder()
    simulator.on_create = made
    assert failure(Failed, getattr(module, function), policy) is error
    assert line(error, function) == request_line
    assert made.calls == []
    assert simulator.call_log == []


@every_acl_counter
def test_a_policy_that_the_request_cannot_hold_is_the_siblings_error(
    simulator: Simulator, module: ModuleType, function: str, native: str | None, request_line: int
) -> None:
    error = failure(TypeError, getattr(module, function), object())
    assert line(error, function) == request_line
    assert simulator.call_log == []


@pytest.mark.parametrize("function", ["switch_acl_egress_counter", "switch_acl_prelookup_counter"])
def test_the_unwired_counters_return_the_same_whatever_the_policy(
    simulator: Simulator, module: ModuleType, function: str
) -> None:
    simulator.default_response = RawJSON('{"counters": []}')
    assert getattr(module, function)(5) == getattr(module, function)() == {"counters": []}
    assert natively(simulator) == []


@every_acl_counter
@pytest.mark.parametrize(
    "positional, keywords, text",
    [
        ((1, 2), {}, "{}() takes at most 1 positional argument (2 given)"),
        ((), {"foo": 1}, "{}() got an unexpected keyword argument 'foo'"),
        ((1,), {"policy_id": 2}, "{}() got multiple values for keyword argument 'policy_id'"),
    ],
)
def test_faulty_arguments_are_reported_at_the_first_line(
    simulator: Simulator,
    module: ModuleType,
    function: str,
    native: str | None,
    request_line: int,
    positional: tuple[object, ...],
    keywords: dict[str, object],
    text: str,
) -> None:
    error = failure(TypeError, getattr(module, function), *positional, **keywords)
    assert str(error) == text.format(function)
    found = entry(error, function)
    assert found.line == found.first_line == FIRST_LINES[function]
    assert simulator.call_log == []
