"""The HTTP interface: functions, calls and parsed output."""

from __future__ import annotations

import re
import time
from concurrent.futures import ThreadPoolExecutor
from typing import Any

import pytest
from webtest import TestApp

from tests.support.console import ARP, ROUTING
from tests.support.function_table import FUNCTIONS
from veldarin_simulator import Simulator, parse_capture, stub
from veldarin_simulator.console.app import ROUTES
from veldarin_simulator.console.session import Session

# Functions


def listed(api: Any) -> list[dict[str, Any]]:
    return [one for part in api("GET", "/api/functions")["subsystems"] for one in part["functions"]]


def test_functions_are_listed_by_subsystem_as_in_the_stub(api: Any) -> None:
    assert [part["title"] for part in api("GET", "/api/functions")["subsystems"]] == [
        "Cookies and certificates",
        "Switch and system status",
        "Command line and BFD",
        "Packet sniffer",
        "Routing and ARP tables",
    ]
    declared = stub.functions()
    for function, expected in zip(listed(api), FUNCTIONS):
        parameters = function["parameters"]
        assert function["name"] == expected.name
        assert function["declaration"] == declared[expected.name].declaration
        assert [one["name"] for one in parameters] == [one.name for one in expected.parameters]
        assert [one["optional"] for one in parameters].count(False) == expected.required
        assert {one["keyword"] for one in parameters} <= {expected.kind == "keywords"}
    assert len(listed(api)) == len(FUNCTIONS)


def test_function_documentation_is_complete(api: Any) -> None:
    declared = stub.functions()
    for function in listed(api):
        words = " ".join(
            function[part] for part in ("summary", "text", "args", "raises", "example")
        )
        docstring = declared[function["name"]].docstring
        whole = re.sub(r"^(Args|Raises|Example):\n", "", docstring, flags=re.MULTILINE)
        # Text below the examples joins the text above them.
        assert sorted(words.split()) == sorted(whole.split()), function["name"]
        assert function["summary"].endswith(".")
        assert function["raises"]
        assert function["example"].startswith(">>> ")


def test_example_call_is_accepted_for_every_function(api: Any) -> None:
    for function in listed(api):
        body = function["example_call"]
        call = api("POST", f"/api/functions/{function['name']}", body)
        assert call["function"] == function["name"]
        assert ("result" in call) != ("exception" in call)
        assert set(body["keywords"]) <= {one["name"] for one in function["parameters"]}
        required = [one for one in function["parameters"] if not one["optional"]]
        assert len(body["arguments"]) + len(body["keywords"]) >= len(required)


# Calls


def test_query_returns_result_request_and_releases(api: Any) -> None:
    call = api("POST", "/api/functions/list_switch_port_statistics", {"arguments": ["port1"]})
    assert call["function"] == "list_switch_port_statistics"
    assert call["result"] == {
        "type": "list",
        "repr": "[{'port_name': 'port1', 'errin': 3}]",
        "value": [{"port_name": "port1", "errin": 3}],
    }
    assert call["source"] == "recorded"
    assert call["microseconds"] > 0
    request = {"service": "build_switch_port_statistics", "source": "recorded", "kind": "request"}
    release = {"service": "JSONObject.release", "source": "none", "kind": "method"}
    assert call["call_log"] == [
        {**request, "json": '{"port_name":"port1"}'},
        {**release, "json": '{"port_name":"port1"}'},
        {**release, "json": '[{"port_name":"port1","errin":3}]'},
    ]


def test_command_is_logged_with_its_bytes(api: Any) -> None:
    call = api("POST", "/api/functions/get_system_arp_result", {})
    assert call["result"]["value"][0]["mac"] == "02:00:00:aa:bb:cc"
    (entry,) = call["call_log"]
    assert entry == {
        "service": "get_cli_cmd_output",
        "source": "recorded",
        "kind": "command",
        "bytes": "get system arp",
        "hex": b"get system arp".hex(" "),
    }


def test_service_without_request_is_logged_as_plain_or_text(api: Any) -> None:
    call = api("POST", "/api/functions/new_cookie_id", {})
    assert call["result"]["value"] == 4294967295
    assert [entry["kind"] for entry in call["call_log"]] == ["plain"]
    body = {"arguments": [{"hex": "ff 00 61"}]}
    call = api("POST", "/api/functions/aps_unsigned_int_hash", body)
    assert call["source"] == "live"
    (entry,) = call["call_log"]
    assert (entry["kind"], entry["bytes"], entry["hex"]) == ("text", "\\xff", "ff")


def test_function_without_native_call_has_source_no_call(api: Any) -> None:
    call = api("POST", "/api/functions/switch_mclag_icl", {})
    assert (call["source"], call["result"]["value"]) == ("no call", None)
    assert {entry["kind"] for entry in call["call_log"]} <= {"method"}


def test_unknown_command_has_source_no_reply(api: Any) -> None:
    body = {"arguments": ["get nonsense"]}
    call = api("POST", "/api/functions/get_cli_command_output", body)
    assert (call["source"], call["exception"]["type"]) == ("no reply", "CFunctionError")
    assert [entry["source"] for entry in call["call_log"]] == ["none"]


def test_keywords_are_passed_to_the_module(api: Any) -> None:
    body = {"arguments": ["lan-trace"], "keywords": {"event": "Running"}}
    call = api("POST", "/api/functions/capture_sniffer_profile", body)
    assert call["result"]["value"]["state"] == "Running"
    assert call["call_log"][0]["service"] == "build_start_sniffer_profile_capture"


def test_exception_of_a_function_is_a_response(api: Any) -> None:
    body = {"arguments": [1, 2]}
    error = api("POST", "/api/functions/switch_acl_ingress_counter", body)["exception"]
    text = "switch_acl_ingress_counter() takes at most 1 positional argument (2 given)"
    assert (error["type"], error["module"], error["message"]) == ("TypeError", "builtins", text)
    assert error["traceback"] == [
        {
            "function": "veldarin.modules.modules_util.switch_acl_ingress_counter",
            "file": "veldarin/modules/modules_util",
            "line": 94,
        }
    ]
    assert error["text"].splitlines()[-1] == f"TypeError: {text}"


def test_traceback_contains_the_calling_function(api: Any, simulator: Simulator) -> None:
    simulator.set_reply("get_cli_cmd_output", None)
    error = api("POST", "/api/functions/get_system_arp_result", {})["exception"]
    assert (error["type"], error["module"]) == ("CFunctionError", "util.errors")
    assert [entry["function"].rsplit(".", 1)[1] for entry in error["traceback"]] == [
        "get_system_arp_result",
        "get_cli_command_output",
    ]


def test_simulator_error_is_separate_from_the_outcome(api: Any, simulator: Simulator) -> None:
    def fail(_: bytes) -> str:
        raise OSError("no such table")

    simulator.set_reply("get_cli_cmd_output", fail)
    call = api("POST", "/api/functions/get_cli_command_output", {"arguments": ["x"]})
    assert call["simulator_error"] == "OSError: no such table"
    assert "simulator_error" not in api("POST", "/api/functions/new_cookie_id", {})


def test_result_is_a_snapshot_of_a_shared_dictionary(api: Any) -> None:
    """Calls without a dictionary argument share one, which grows."""
    path = "/api/functions/get_bfd_neighbor"
    commands = ("bfd neighbor 198.51.100.2 port1", "6 bfd neighbor 2001:db8::2 port1")
    first, second = (
        api("POST", path, {"arguments": [f"get router info{command}"]})
        for command in (f" {commands[0]}", commands[1])
    )
    assert "2001:db8::2_port1" not in first["result"]["value"]
    assert {"198.51.100.2_port1", "2001:db8::2_port1"} <= set(second["result"]["value"])


def test_concurrent_calls_have_separate_call_logs(api: Any, simulator: Simulator) -> None:
    def slow(request: Any) -> Any:
        time.sleep(0.02)  # lets the other threads run
        return [request]

    simulator.set_reply("build_switch_port_statistics", slow)

    def call(port: int) -> tuple[int, Any]:
        body = {"arguments": [f"port{port}"]}
        return port, api("POST", "/api/functions/list_switch_port_statistics", body)

    with ThreadPoolExecutor(8) as threads:
        for port, response in threads.map(call, range(24)):
            request = f'{{"port_name":"port{port}"}}'
            assert response["result"]["value"] == [{"port_name": f"port{port}"}]
            logged = [entry["json"] for entry in response["call_log"]]
            assert logged == [request, request, f"[{request}]"]


# Parsed output


def test_parsed_lines_are_traced_to_values(api: Any) -> None:
    text = "get system arp\r\n" + ARP.replace("\n", "\r\n")
    parsed = api("POST", "/api/parse/arp", {"text": text})
    assert parsed["result"]["value"] == [
        {"ipAddress": "192.0.2.10", "age": "0", "mac": "02:00:00:aa:bb:cc", "interface": "port1"}
    ]
    assert parsed["lines"] == text.split("\n")
    assert parsed["origins"] == [{"line": 3, "values": [[0]]}]
    assert parsed["skipped"] == []


def origins(parsed: dict[str, Any]) -> dict[int, Any]:
    return {origin["line"]: origin["values"] for origin in parsed["origins"]}


def test_route_fields_are_traced_to_their_lines(api: Any) -> None:
    text = f"echo\n{ROUTING}\n  direct, port2\n"
    assert origins(api("POST", "/api/parse/routing", {"text": text})) == {
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


def test_second_bfd_session_is_traced_to_the_first(api: Any) -> None:
    parsed = api("POST", "/api/parse/bfd", {"text": BFD})
    name = "10.0.0.2_port1"
    assert list(parsed["result"]["value"]) == [name]
    assert parsed["result"]["value"][name]["status"] == "up"
    assert origins(parsed) == {
        2: [[name, "neighbor_ip"], [name, "interface"], [name, "name"]],
        5: [[name, "local_timers", "detect_multiplier"]],
        6: [[name, "local_timers", "receive_interval"]],
        7: [[name, "local_timers", "transmit_interval"]],
        9: [[name, "status"]],  # not line 3
    }
    assert parsed["skipped"] == ["e:argument of type 'type' is not iterable"]


def test_rejected_output_is_reported_with_its_line(api: Any) -> None:
    parsed = api("POST", "/api/parse/arp", {"text": f"{ARP}device #\n"})
    error = parsed["exception"]
    assert (error["type"], error["line"]) == ("IndexError", 3)
    assert "this line: 'device #'" in error["detail"]
    assert [entry["file"] for entry in error["traceback"]] == ["veldarin/modules/modules_util"]
    assert "result" not in parsed
    error = api("POST", "/api/parse/arp", {"text": "nothing"})["exception"]
    assert (error["line"], error["detail"]) == (None, 'no line begins with "Address"')


def test_output_ends_at_its_first_nul(api: Any) -> None:
    parsed = api("POST", "/api/parse/arp", {"text": f"{ARP}\0not a row\n"})
    assert len(parsed["result"]["value"]) == 1
    assert parsed["note"] == f"the text ends at its first NUL byte, offset {len(ARP)}"
    assert parsed["lines"] == ARP.split("\n")


def test_long_output_is_parsed_without_origins(api: Any) -> None:
    row = "192.0.2.10 0 02:00:00:aa:bb:cc port1\n"
    rows = parse_capture.MAX_LINES - 2
    parsed = api("POST", "/api/parse/arp", {"text": "Address\n" + row * rows})
    assert len(parsed["origins"]) == rows
    parsed = api("POST", "/api/parse/arp", {"text": "Address\n" + row * (rows + 1)})
    assert (len(parsed["result"]["value"]), parsed["origins"]) == (rows + 1, [])
    assert "more than 500 lines" in parsed["note"]


@pytest.mark.parametrize("text", ["Address\n1 2 3 4\n", "rejected"])
def test_parsing_leaves_the_reply_of_commands_unchanged(api: Any, text: str) -> None:
    api("POST", "/api/parse/arp", {"text": text})
    call = api("POST", "/api/functions/get_system_arp_result", {})
    assert call["result"]["value"][0]["ipAddress"] == "192.0.2.10"
    assert call["source"] == "recorded"


@pytest.mark.parametrize("body", [{}, {"text": 7}, {"text": None}, {"text": "\ud800"}])
def test_parse_without_a_string_is_rejected(api: Any, body: dict[str, Any]) -> None:
    assert api("POST", "/api/parse/arp", body, status=400)["at"] == "text"


# Errors


@pytest.mark.parametrize(
    ("body", "detail"),
    [
        (b"", "not JSON"),
        (b"{", "not JSON"),
        (b"[]", "a JSON object"),
        (b"7", "a JSON object"),
        (b'{"arguments": [NaN]}', "NaN is not valid JSON"),
        (b'{"arguments": [-Infinity]}', "-Infinity is not valid JSON"),
        (b"\xff", "not UTF-8"),
        (b'{"arguments": ' + b"[" * 100_000, "not JSON"),
        (b'{"arguments": [' + b"9" * 1001 + b"]}", "expected at most 1000 decimal digits"),
    ],
    ids=lambda value: str(value)[:24],
)
def test_body_that_is_not_a_json_object_is_rejected(
    client: TestApp, body: bytes, detail: str
) -> None:
    kind = {"Content-Type": "application/json"}
    error = client.post("/api/functions/new_cookie_id", body, kind, status=400).json
    assert detail in error["detail"]


@pytest.mark.parametrize("name", ["json", "__import__", "Counters", "_logger", "nonsense"])
def test_call_of_a_name_that_is_not_a_function_is_rejected(api: Any, name: str) -> None:
    error = api("POST", f"/api/functions/{name}", {}, status=404)
    assert error["detail"] == f"the module has no function {name}"


@pytest.mark.parametrize(
    ("method", "path", "body", "status"),
    [
        ("GET", "/api/nothing", None, 404),
        ("POST", "/api/nothing", {}, 404),
        ("GET", "/static/nothing.js", None, 404),
        ("POST", "/api/functions/", {}, 404),
        ("POST", "/api/parse/stp", {"text": ""}, 404),
        ("PUT", "/api/scenarios/current", {"name": "nowhere"}, 404),
        ("POST", "/api/functions/new_cookie_id", [], 400),
        ("POST", "/api/functions", {}, 405),
    ],
)
def test_error_is_a_problem_details_object(
    api: Any, method: str, path: str, body: Any, status: int
) -> None:
    error = api(method, path, body, status=status)
    assert (error["type"], error["status"]) == ("about:blank", status)
    assert error["title"]
    assert error["detail"]


@pytest.mark.parametrize(
    ("path", "allowed"),
    [
        ("/", "GET, HEAD"),
        ("/static/console.js", "GET, HEAD"),
        ("/api/functions", "GET, HEAD"),
        ("/api/functions/new_cookie_id", "POST"),
        ("/api/parse/arp", "POST"),
        ("/api/scenarios/current", "PUT"),
        ("/api/scenarios/mine", "PUT"),
        ("/api/replies/get system arp", "GET, HEAD, PUT, DELETE"),
    ],
)
def test_wrong_method_is_rejected_with_allow(client: TestApp, path: str, allowed: str) -> None:
    for method in {"GET", "HEAD", "POST", "PUT", "PATCH", "DELETE"} - set(allowed.split(", ")):
        kind = {"content_type": "application/json"}
        response = client.request(path, method=method, body=b"{}", status=405, **kind)
        assert response.headers["Allow"] == allowed


def test_internal_error_is_logged_and_reported(
    api: Any, session: Session, monkeypatch: pytest.MonkeyPatch, caplog: pytest.LogCaptureFixture
) -> None:
    monkeypatch.setattr(session, "call", lambda *_: 1 // 0)
    error = api("POST", "/api/functions/new_cookie_id", {}, status=500)
    assert error["detail"].startswith("internal error: ZeroDivisionError: ")
    assert "Traceback" in caplog.text


def test_every_route_has_its_own_view() -> None:
    assert len({view for _, _, view in ROUTES}) == len(ROUTES)


def test_closed_session_is_unavailable(api: Any, session: Session) -> None:
    session.close()
    assert api("POST", "/api/functions/new_cookie_id", {}, status=503)["detail"]
