"""The JSON bridge, tested with every query: the order of the native calls, the result, and the line
of every statement that fails."""

from __future__ import annotations

import json
from types import ModuleType, SimpleNamespace
from typing import Any

import pytest
import ujson

from tests.support.assertions import line, raises_exactly, traceback_entries, with_types
from tests.support.doubles import Failure, Recorder
from tests.support.module_patch import Patch
from tests.support.query_cases import (
    Query,
    every_native_query,
    every_query_without_native,
    without_releases,
)
from veldarin_simulator import RawJSON, Simulator

SERIALIZER = "json_object_to_json_string"


def test_query_releases_request_before_response(query: Query) -> None:
    query.prepare()
    result = query.call()
    assert with_types(result) == with_types(query.select(query.reply))
    assert query.native_calls == [
        *query.sent,
        ("JSONObject.release", query.request),
        ("JSONObject.release", query.reply),
    ]


@every_native_query
def test_context_and_third_argument_are_null(query: Query) -> None:
    query.prepare()
    query.call()
    (call,) = [call for call in query.simulator.call_log if call.service == query.native]
    assert (call.context, call.third, call.text) == (None, None, None)


def test_request_gets_a_dict_and_response_no_argument(query: Query) -> None:
    query.prepare()
    created = query.simulator.on_create = Recorder()
    query.call()
    query.call()
    arguments = [args for (args,) in created.positional]
    assert arguments == [(query.request,), (), (query.request,), ()]
    assert type(arguments[0][0]) is dict
    assert all(value is query.case.arguments[0] for value in arguments[0][0].values())
    assert arguments[0][0] is not arguments[2][0], "a new dictionary for every call"


def test_result_is_the_object_that_loads_returns(query: Query) -> None:
    query.prepare()
    parsed = [{"interface": [{"name": query.request.get("name")}]}]
    loads = Recorder(lambda text: parsed)
    query.patch_loads(loads)
    assert query.call() is query.select(parsed)
    ((text,),) = loads.positional
    assert type(text) is bytes
    assert json.loads(text) == query.reply


@every_query_without_native
def test_query_not_wired_returns_initial_response(query: Query) -> None:
    assert query.call() is None
    query.prepare('{"x": 1}')
    assert query.call() == {"x": 1}
    assert without_releases(query.simulator) == []


@every_native_query
def test_null_reply_is_none(query: Query) -> None:
    query.simulator.set_reply(str(query.native), None)
    query.simulator.default_response = RawJSON('{"replaced": true}')
    if query.function == "list_system_interface_physical":
        error = raises_exactly(TypeError, query.call)
        assert str(error) == "'NoneType' object is not subscriptable"
    else:
        assert query.call() is None
        assert query.native_calls[-1] == ("JSONObject.release", None)
    assert without_releases(query.simulator) == query.sent


@pytest.mark.parametrize(
    "reply",
    [
        *(None, True, 0, -5, 2**62, 1.5, "", [], {}),
        'text with \u00fc, \u20ac, \U0001f600 and \\ " / \n',
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


@pytest.mark.parametrize(
    "text", ['{"a": 1, "a": 2}', " [1 ,2.50]\n", '"\\u00e9\\ud83d\\ude00"', "[1]\0[2]"]
)
def test_loads_gets_serialized_reply_up_to_first_nul(
    simulator: Simulator, module: ModuleType, patch: Patch, text: str
) -> None:
    loads = Recorder(ujson.loads)
    patch("json", SimpleNamespace(loads=loads))
    simulator.set_reply("build_switch_lg_state", RawJSON(text))
    serialized, _, _ = text.partition("\0")
    assert module.list_switch_lg_state() == json.loads(serialized)
    assert loads.positional == [(serialized.encode(),)]


def test_service_gets_the_request_of_each_call(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply("build_switch_stp_state", lambda request: {"request": request})
    for instance in (0, 1, "two"):
        assert module.list_switch_stp_state(instance) == {"request": {"instance_id": instance}}


# Lookup of the JSON parser


@every_native_query
def test_json_is_looked_up_after_native_call(query: Query) -> None:
    parsed = [{"interface": [{"name": "port1"}]}]

    def reply(request: object) -> object:
        query.patch_loads(lambda text: parsed)
        return query.reply

    query.simulator.set_reply(str(query.native), reply)
    assert query.call() is query.select(parsed)


def test_loads_is_looked_up_before_serializing(query: Query) -> None:
    query.prepare()
    query.simulator.record_serializer()
    calls_before: dict[str, list[tuple[str, Any]]] = {}

    def loads(text: bytes) -> Any:
        calls_before["call"] = query.native_calls
        return ujson.loads(text)

    class Parser:
        @property
        def loads(self) -> object:
            calls_before["lookup"] = query.native_calls
            return loads

    query.patch("json", Parser())
    query.call()
    serialized = [*query.sent, (SERIALIZER, query.reply)]
    assert calls_before == {"lookup": query.sent, "call": serialized}
    assert query.native_calls == [
        *serialized,
        ("JSONObject.release", query.request),
        ("JSONObject.release", query.reply),
    ]


# Failures, one statement after the other


@pytest.mark.parametrize("missing", ["json", "loads"])
def test_missing_loads_leaves_reply_unserialized(query: Query, missing: str) -> None:
    query.prepare()
    query.simulator.record_serializer()
    if missing == "json":
        query.delete("json")
        error: Exception = raises_exactly(NameError, query.call)
        assert str(error) == "name 'json' is not defined"
    else:
        query.patch("json", SimpleNamespace())
        error = raises_exactly(AttributeError, query.call)
        assert str(error) == "'types.SimpleNamespace' object has no attribute 'loads'"
    assert line(error, query.function) == query.lines.parse
    assert query.native_calls == query.sent


def test_invalid_json_raises_error_of_parser(query: Query) -> None:
    for text in ("{oops", "", "[1,", "nul"):
        expected = raises_exactly(ujson.JSONDecodeError, ujson.loads, text.encode())
        query.simulator.clear_calls()
        query.prepare(text)
        error = raises_exactly(ujson.JSONDecodeError, query.call)
        assert error.args == expected.args
        assert line(error, query.function) == query.lines.parse
        assert query.native_calls == query.sent


# The steps in order, each with the field of `QueryLines` that has its line.
STEPS = {
    "request": "request",
    "response": "response",
    "lookup": "parse",
    "loads": "parse",
    "first release": "first_release",
    "second release": "second_release",
}


@pytest.mark.parametrize("failing", STEPS)
def test_failing_step_is_last_and_not_retried(query: Query, failing: str) -> None:
    """Every step up to the failing one runs exactly once, and none after it."""
    error = Failure()
    steps: list[str] = []
    released: list[object] = []

    def step(name: str) -> None:
        steps.append(name)
        # Only the first attempt fails: a second one would succeed.
        if name == failing and steps.count(name) == 1:
            raise error

    def loads(text: bytes) -> Any:
        step("loads")
        return ujson.loads(text)

    class Parser:
        @property
        def loads(self) -> object:
            step("lookup")
            return loads

    def release(text: str) -> None:
        released.append(json.loads(text))
        step("first release" if len(released) == 1 else "second release")

    query.prepare()
    query.patch("json", Parser())
    query.simulator.on_create = lambda arguments: step("request" if arguments else "response")
    query.simulator.on_release = release
    # For `on_release` a release calls the serializer too, which would add to the log.
    if "release" not in failing:
        query.simulator.record_serializer()
    assert raises_exactly(Failure, query.call) is error
    (found,) = traceback_entries(error.__traceback__)
    assert found.function == query.function
    assert found.line == getattr(query.lines, STEPS[failing])
    assert steps == [*STEPS][: len(steps)]
    assert steps[-1] == failing
    assert released == [query.request, query.reply][: len(released)]
    calls = query.sent if "lookup" in steps else []
    serialized = [(SERIALIZER, query.reply)] if failing == "loads" else []
    assert without_releases(query.simulator) == [*calls, *serialized]
