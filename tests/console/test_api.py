"""The console's HTTP interface: functions, calls with what they left behind, captured texts."""

from __future__ import annotations

import json
import threading
import time
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any

import pytest
from pyramid import testing

from tests.support.console import ARP, ROUTING, client, opened
from tests.support.function_table import FUNCTIONS
from veldarin_simulator import Reply, parse_capture, stub
from veldarin_simulator.console import views
from veldarin_simulator.console.app import ROUTES
from veldarin_simulator.console.errors import Problem
from veldarin_simulator.console.session import Bench


@pytest.fixture
def bench(build: None, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Iterator[Bench]:
    """A bench on the test's scenario."""
    with opened(tmp_path, monkeypatch) as bench:
        yield bench


@pytest.fixture
def asked(bench: Bench) -> Any:
    """Asks the application: (method, path, body) to the JSON of the answer, of the status given."""
    app = client(bench)

    def asked(method: str, path: str, body: Any = None, status: int = 200) -> Any:
        if method == "GET":
            answer = app.get(path, status=status)
        else:
            answer = app.post_json(path, body, status=status)
        assert answer.content_type == "application/json"
        return answer.json

    return asked


def scripted(bench: Bench, service: str, reply: Any) -> None:
    """Scripts an answer on the bench's device."""
    assert bench._simulator is not None
    bench._simulator.set_reply(service, reply)


# Handlers by themselves


def request(bench: Bench, body: Any = None, **matched: str) -> testing.DummyRequest:
    dummy = testing.DummyRequest(matchdict=matched)
    dummy.body = json.dumps(body).encode()
    dummy.registry = {"bench": bench}
    return dummy


def test_a_handler_calls_the_module(bench: Bench) -> None:
    shown = views.call(request(bench, {"arguments": ["port1"]}, name="list_switch_port_statistics"))
    assert shown["result"]["value"] == [{"port_name": "port1", "errin": 3}]
    assert shown["function"] == "list_switch_port_statistics"


def test_a_handler_refuses_what_is_no_function_of_the_thirty(bench: Bench) -> None:
    for name in ("json", "__import__", "Counters", "_logger", "nonsense", ""):
        with pytest.raises(Problem) as refused:
            views.call(request(bench, {}, name=name))
        assert refused.value.status == 404


def test_a_handler_refuses_a_capture_of_another_kind(bench: Bench) -> None:
    with pytest.raises(Problem, match="captures are of the kinds arp, routing, bfd"):
        views.parse(request(bench, {"text": ""}, kind="stp"))


@pytest.mark.parametrize(
    ("body", "problem"),
    [
        (b"", "not JSON"),
        (b"{", "not JSON"),
        (b"[]", "a JSON object"),
        (b"7", "a JSON object"),
        (b'{"arguments": [NaN]}', "NaN is no JSON number"),
        (b'{"arguments": [-Infinity]}', "-Infinity is no JSON number"),
        (b"\xff", "not UTF-8"),
        (b'{"arguments": ' + b"[" * 100_000, "not JSON"),
        pytest.param(
            b'{"arguments": [' + b"9" * 5000 + b"]}",
            "not JSON",
            marks=pytest.mark.workstation_only("CPython 3.9.2 has no limit on a number's digits"),
        ),
    ],
    ids=lambda value: str(value)[:24],
)
def test_a_handler_refuses_a_body_that_is_no_json_object(
    bench: Bench, body: bytes, problem: str
) -> None:
    dummy = request(bench, name="new_cookie_id")
    dummy.body = body
    with pytest.raises(Problem, match=problem) as refused:
        views.call(dummy)
    assert refused.value.status == 400


# Functions


def test_the_functions_are_told_by_subsystem_as_the_face_has_them(asked: Any) -> None:
    told = asked("GET", "/api/functions")
    held = [function for one in told["subsystems"] for function in one["functions"]]
    assert [function["name"] for function in held] == [function.name for function in FUNCTIONS]
    assert [one["title"] for one in told["subsystems"]] == [
        "Cookies and certificates",
        "Switch and system status",
        "Command line and BFD",
        "Packet sniffer",
        "Routing and ARP tables",
    ]
    declared = stub.functions()
    for function, expected in zip(held, FUNCTIONS):
        assert function["declaration"] == declared[expected.name].declaration
        assert [parameter["name"] for parameter in function["parameters"]] == [
            parameter.name for parameter in expected.parameters
        ]
        optional = [parameter["optional"] for parameter in function["parameters"]]
        assert optional.count(False) == expected.required
        assert {parameter["keyword"] for parameter in function["parameters"]} <= {
            expected.kind == "keywords"
        }


def test_the_whole_documentation_of_a_function_is_told(asked: Any) -> None:
    declared = stub.functions()
    for one in asked("GET", "/api/functions")["subsystems"]:
        for function in one["functions"]:
            parts = [function[part] for part in ("summary", "text", "raises", "example")]
            told = " ".join(" ".join(parts).split())
            documentation = declared[function["name"]].documentation
            whole = " ".join(
                documentation.replace("Raises:\n", "").replace("Example:\n", "").split()
            )
            # What comes after the examples is told with the text before them.
            assert sorted(told.split()) == sorted(whole.split()), function["name"]
            assert function["summary"].endswith(".")
            assert function["raises"]
            assert function["example"].startswith(">>> ")


def test_every_function_can_be_called_as_its_example_does(asked: Any) -> None:
    for one in asked("GET", "/api/functions")["subsystems"]:
        for function in one["functions"]:
            called = asked("POST", f"/api/functions/{function['name']}", function["try"])
            assert called["function"] == function["name"]
            assert ("result" in called) != ("raised" in called)
            given = function["try"]
            required = [p for p in function["parameters"] if not p["optional"]]
            assert len(given["arguments"]) + len(given["keywords"]) >= len(required)


# Calls


def test_a_query_leaves_its_result_its_request_and_the_releases(asked: Any) -> None:
    called = asked("POST", "/api/functions/list_switch_port_statistics", {"arguments": ["port1"]})
    assert called["result"] == {
        "type": "list",
        "repr": "[{'port_name': 'port1', 'errin': 3}]",
        "value": [{"port_name": "port1", "errin": 3}],
    }
    assert called["source"] == "recorded"
    assert called["microseconds"] > 0
    asked_for = {"service": "build_switch_port_statistics", "source": "recorded", "kind": "request"}
    released = {"service": "JSONObject.release", "source": "none", "kind": "method"}
    assert called["journal"] == [
        {**asked_for, "json": '{"port_name":"port1"}'},
        {**released, "json": '{"port_name":"port1"}'},
        {**released, "json": '[{"port_name":"port1","errin":3}]'},
    ]


def test_a_command_leaves_its_bytes(asked: Any) -> None:
    called = asked("POST", "/api/functions/get_system_arp_result", {})
    assert called["result"]["value"][0]["mac"] == "02:00:00:aa:bb:cc"
    (crossing,) = called["journal"]
    assert crossing == {
        "service": "get_cli_cmd_output",
        "source": "recorded",
        "kind": "command",
        "bytes": "get system arp",
        "hex": b"get system arp".hex(" "),
    }


def test_a_service_that_is_given_nothing_or_a_text_is_told_so(asked: Any) -> None:
    called = asked("POST", "/api/functions/new_cookie_id", {})
    assert called["result"]["value"] == 4294967295
    assert [entry["kind"] for entry in called["journal"]] == ["plain"]
    arguments = {"arguments": [{"hex": "ff 00 61"}]}
    called = asked("POST", "/api/functions/aps_unsigned_int_hash", arguments)
    assert called["source"] == "live"
    (crossing,) = called["journal"]
    assert (crossing["kind"], crossing["bytes"], crossing["hex"]) == ("text", "\\xff", "ff")


def test_a_function_that_asks_nobody_has_no_source(asked: Any) -> None:
    called = asked("POST", "/api/functions/switch_mclag_icl", {})
    assert (called["source"], called["result"]["value"]) == ("no call", None)
    assert {entry["kind"] for entry in called["journal"]} <= {"method"}


def test_a_command_that_nobody_knows_has_no_answer(asked: Any) -> None:
    body = {"arguments": ["get nonsense"]}
    called = asked("POST", "/api/functions/get_cli_command_output", body)
    assert (called["source"], called["raised"]["type"]) == ("no answer", "CFunctionError")
    assert [entry["source"] for entry in called["journal"]] == ["none"]


def test_keywords_reach_the_module(asked: Any) -> None:
    body = {"arguments": ["lan-trace"], "keywords": {"event": "Running"}}
    called = asked("POST", "/api/functions/capture_sniffer_profile", body)
    assert called["result"]["value"]["state"] == "Running"
    assert called["journal"][0]["service"] == "build_start_sniffer_profile_capture"


def test_what_a_function_raises_is_an_answer(asked: Any) -> None:
    body = {"arguments": [1, 2]}
    raised = asked("POST", "/api/functions/switch_acl_ingress_counter", body)["raised"]
    text = "switch_acl_ingress_counter() takes at most 1 positional argument (2 given)"
    assert (raised["type"], raised["module"], raised["message"]) == ("TypeError", "builtins", text)
    assert raised["traceback"] == [
        {
            "function": "veldarin.modules.modules_util.switch_acl_ingress_counter",
            "file": "veldarin/modules/modules_util",
            "line": 94,
        }
    ]
    assert raised["text"].splitlines()[-1] == f"TypeError: {text}"


def test_a_traceback_goes_through_the_functions_that_called_each_other(
    asked: Any, bench: Bench
) -> None:
    scripted(bench, "get_cli_cmd_output", None)
    raised = asked("POST", "/api/functions/get_system_arp_result", {})["raised"]
    assert (raised["type"], raised["module"]) == ("CFunctionError", "util.errors")
    assert [entry["function"].rsplit(".", 1)[1] for entry in raised["traceback"]] == [
        "get_system_arp_result",
        "get_cli_command_output",
    ]


def test_what_goes_wrong_in_the_stand_in_is_told_apart(asked: Any, bench: Bench) -> None:
    def broken(_: bytes) -> str:
        raise OSError("no such table")

    scripted(bench, "get_cli_cmd_output", broken)
    called = asked("POST", "/api/functions/get_cli_command_output", {"arguments": ["x"]})
    assert called["failed_answers"] == "OSError: no such table"
    called = asked("POST", "/api/functions/new_cookie_id", {})
    assert "failed_answers" not in called


def test_a_result_is_told_as_it_was_when_the_call_ended(asked: Any, bench: Bench) -> None:
    # The dictionary that calls without one of their own share grows from call to call.
    path = "/api/functions/get_bfd_neighbor"
    command = "get router info bfd neighbor 198.51.100.2 port1"
    with bench._locked() as simulator:
        simulator.module.get_bfd_neighbor(command).clear()  # what other tests have left there
    first = asked("POST", path, {"arguments": [command]})
    second = asked("POST", path, {"arguments": ["get router info6 bfd neighbor 2001:db8::2 port1"]})
    assert "2001:db8::2_port1" not in first["result"]["value"]
    assert {"198.51.100.2_port1", "2001:db8::2_port1"} <= set(second["result"]["value"])


def test_the_journals_of_calls_at_the_same_time_are_not_mixed(asked: Any, bench: Bench) -> None:
    begun = threading.Event()

    def slow(request: Any) -> Any:
        begun.set()
        time.sleep(0.02)  # lets every other thread run that can
        return [request]

    scripted(bench, "build_switch_port_statistics", Reply(slow))

    def call(place: int) -> tuple[int, Any]:
        arguments = {"arguments": [f"port{place}"]}
        return place, asked("POST", "/api/functions/list_switch_port_statistics", arguments)

    with ThreadPoolExecutor(8) as threads:
        for place, called in threads.map(call, range(24)):
            assert called["result"]["value"] == [{"port_name": f"port{place}"}]
            assert [entry["json"] for entry in called["journal"]] == [
                f'{{"port_name":"port{place}"}}',
                f'{{"port_name":"port{place}"}}',
                f'[{{"port_name":"port{place}"}}]',
            ]
    assert begun.is_set()


# Captures


def test_a_capture_is_parsed_and_its_lines_are_told_apart(asked: Any) -> None:
    text = "get system arp\r\n" + ARP.replace("\n", "\r\n")
    made = asked("POST", "/api/captures/arp", {"text": text})
    assert made["result"]["value"] == [
        {"ipAddress": "192.0.2.10", "age": "0", "mac": "02:00:00:aa:bb:cc", "interface": "port1"}
    ]
    assert made["lines"] == text.split("\n")
    assert made["origins"] == [{"line": 3, "values": [[0]]}]
    assert made["passed_over"] == []


def test_the_fields_of_a_route_are_told_from_their_lines(asked: Any) -> None:
    made = asked("POST", "/api/captures/routing", {"text": f"echo\n{ROUTING}\n  direct, port2\n"})
    assert {origin["line"]: origin["values"] for origin in made["origins"]} == {
        2: [["entry"]],
        3: [["distance"], ["metric"], ["other"]],
        4: [["lastUpdate"]],
        5: [["table", 0]],
        7: [["table", 1]],
    }


BFD = """\
get router info bfd neighbor
peer 10.0.0.2 interface port1
    Status: down
    Local timers
        Detect Multiplier: 3
        Receive Interval: 250
        Transmit Interval: 250
peer 10.0.0.3 interface port2
    Status: up
"""


def test_a_later_session_is_told_as_what_overwrote_the_first(asked: Any) -> None:
    made = asked("POST", "/api/captures/bfd", {"text": BFD})
    (session,) = made["result"]["value"]
    assert session == "10.0.0.2_port1"
    assert made["result"]["value"][session]["status"] == "up"
    assert {
        origin["line"]: [path[1:] for path in origin["values"]] for origin in made["origins"]
    } == {
        2: [["neighbor_ip"], ["interface"], ["name"]],
        5: [["local_timers", "detect_multiplier"]],
        6: [["local_timers", "receive_interval"]],
        7: [["local_timers", "transmit_interval"]],
        9: [["status"]],  # and not line 3
    }
    assert made["passed_over"] == ["e:argument of type 'type' is not iterable"]


def test_a_refused_capture_is_told_with_the_line(asked: Any) -> None:
    made = asked("POST", "/api/captures/arp", {"text": f"{ARP}device #\n"})
    raised = made["raised"]
    assert (raised["type"], raised["line"]) == ("IndexError", 3)
    assert raised["problem"] == "the parser refuses this line: 'device #'"
    assert [entry["file"] for entry in raised["traceback"]] == ["veldarin/modules/modules_util"]
    assert "result" not in made
    made = asked("POST", "/api/captures/arp", {"text": "nothing"})
    assert made["raised"]["line"] is None
    assert made["raised"]["problem"] == 'no line begins with "Address"'


def test_a_capture_ends_at_its_first_nul(asked: Any) -> None:
    made = asked("POST", "/api/captures/arp", {"text": f"{ARP}\0not a row\n"})
    assert len(made["result"]["value"]) == 1
    assert made["note"] == f"the text ends at its first NUL byte, offset {len(ARP)}"
    assert made["lines"] == ARP.split("\n")


def test_a_long_capture_is_parsed_without_telling_lines_apart(asked: Any) -> None:
    row = "192.0.2.10 0 02:00:00:aa:bb:cc port1\n"
    rows = parse_capture.MOST_LINES - 2
    made = asked("POST", "/api/captures/arp", {"text": "Address\n" + row * rows})
    assert len(made["origins"]) == rows
    made = asked("POST", "/api/captures/arp", {"text": "Address\n" + row * (rows + 1)})
    assert (len(made["result"]["value"]), made["origins"]) == (rows + 1, [])
    assert "up to 500 lines" in made["note"]


def test_after_a_capture_the_device_answers_as_before(asked: Any) -> None:
    for text in ("Address\n1 2 3 4\n", "refused"):
        asked("POST", "/api/captures/arp", {"text": text})
        called = asked("POST", "/api/functions/get_system_arp_result", {})
        assert called["result"]["value"][0]["ipAddress"] == "192.0.2.10"
        assert called["source"] == "recorded"


@pytest.mark.parametrize("body", [{}, {"text": 7}, {"text": None}, {"text": "\ud800"}])
def test_a_capture_is_a_text(asked: Any, body: dict[str, Any]) -> None:
    error = asked("POST", "/api/captures/arp", body, status=400)["error"]
    assert error["at"] == "text"


# Errors


def test_every_error_has_one_form(asked: Any) -> None:
    for method, path, body, status in (
        ("GET", "/api/nothing", None, 404),
        ("POST", "/api/nothing", {}, 404),
        ("POST", "/api/functions", {}, 404),
        ("GET", "/api/functions/new_cookie_id", None, 404),
        ("GET", "/static/nothing.js", None, 404),
        ("POST", "/api/functions/nonsense", {}, 404),
        ("POST", "/api/functions/new_cookie_id", [], 400),
        ("POST", "/api/scenarios/load", {"name": "nowhere"}, 404),
    ):
        error = asked(method, path, body, status=status)["error"]
        assert error["status"] == status
        assert error["title"]
        assert error["problem"]


def test_a_failure_of_the_console_itself_is_told_as_json(
    asked: Any, bench: Bench, monkeypatch: pytest.MonkeyPatch, caplog: pytest.LogCaptureFixture
) -> None:
    def fails(*_: Any) -> None:
        raise ZeroDivisionError("by zero")

    monkeypatch.setattr(bench, "call", fails)
    error = asked("POST", "/api/functions/new_cookie_id", {}, status=500)["error"]
    assert error["problem"] == "the console failed: ZeroDivisionError: by zero"
    assert "Traceback" in caplog.text


def test_every_route_has_a_handler_of_its_own() -> None:
    assert len({handler for _, _, handler in ROUTES}) == len(ROUTES)


def test_a_bench_that_is_closed_answers_no_more(asked: Any, bench: Bench) -> None:
    bench.close()
    assert asked("POST", "/api/functions/new_cookie_id", {}, status=503)["error"]["problem"]
