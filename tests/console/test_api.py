"""The HTTP interface: functions, calls and parsed output."""

from __future__ import annotations

import json
import re
import shlex
import threading
import time
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any
from unittest import mock

import pytest
from webtest import TestApp

from tests.support.console import ARP, BFD, ROUTING
from tests.support.function_table import FUNCTIONS
from veldarin_simulator import RawJSON, Simulator, parse_capture, stub
from veldarin_simulator.console import serialization
from veldarin_simulator.console import session as session_module
from veldarin_simulator.console.app import ROUTES
from veldarin_simulator.console.errors import PROBLEMS
from veldarin_simulator.console.scenario_store import MAX_REPLY_BYTES
from veldarin_simulator.console.session import Session
from veldarin_simulator.simulator import MODULE

CRYPTOGRAPHY = pytest.mark.requires("cryptography")

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
    reply = {"name": "build_switch_port_statistics", "text": '[{"port_name": "port1", "errin": 3}]'}
    assert call["call_log"] == [
        {**request, "json": '{"port_name":"port1"}', "reply": reply},
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
        "reply": {"name": "get system arp", "text": ARP},
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


def test_preference_token_has_source_live(api: Any) -> None:
    assert api("POST", "/api/functions/get_token", {})["source"] == "live"


def test_records_of_the_module_are_part_of_a_call(api: Any) -> None:
    api("PUT", "/api/replies/bfd", {"text": BFD})
    call = api("POST", "/api/functions/get_bfd_neighbor", {"arguments": ["bfd", {"json": {}}]})
    message = "e:argument of type 'type' is not iterable"
    assert call["log"] == [{"logger": MODULE, "level": "DEBUG", "message": message}]
    assert api("POST", "/api/functions/new_cookie_id", {})["log"] == []


@pytest.mark.parametrize(
    ("name", "arguments"),
    [
        ("list_switch_lg_state", []),
        ("get_system_arp_result", []),
        ("new_cookie_id", []),
        pytest.param("encrypt_cookie", [{"bytes": "user=admin"}], marks=CRYPTOGRAPHY),
        pytest.param("decrypt_cookie", [{"bytes": "not a cookie"}], marks=CRYPTOGRAPHY),
        pytest.param("check_cert_expiration", [{"bytes": "/x"}], marks=CRYPTOGRAPHY),
    ],
)
def test_reply_of_a_call_can_be_kept(api: Any, name: str, arguments: Any) -> None:
    call = api("POST", f"/api/functions/{name}", {"arguments": arguments})
    replies = [entry["reply"] for entry in call["call_log"] if "reply" in entry]
    for reply in replies:
        api("PUT", f"/api/replies/{reply['name']}", {"text": reply["text"]})
    assert len(replies) == 1
    kept = api("POST", f"/api/functions/{name}", {"arguments": arguments})
    assert (kept["result"], kept["source"]) == (call["result"], "recorded")


def test_each_native_call_has_its_own_reply(api: Any) -> None:
    call = api("POST", "/api/functions/list_bfd_neighbor", {})
    replies = [(entry["bytes"], entry["reply"]["name"]) for entry in call["call_log"]]
    assert len(replies) > 3
    assert all(command == name for command, name in replies)
    texts = [entry["reply"]["text"] for entry in call["call_log"]]
    assert "198.51.100.2" in texts[0]
    assert "2001:db8::2" in texts[1]
    assert call["code"]["pytest"].count("BFD Peers") == len({name for _, name in replies})


CALLS: list[tuple[str, dict[str, Any]]] = [
    ("new_cookie_id", {}),
    ("get_system_arp_result", {}),
    ("list_switch_lg_state", {}),
    ("get_cli_command_output", {"arguments": ["it's \\ \u202e \ud800 \n\x1b"]}),
    ("aps_unsigned_int_hash", {"arguments": [{"hex": "ff 27 22 5c"}]}),
    ("list_switch_trunk_state", {"arguments": [{"json": {"a": [1.5, None, True]}}]}),
    ("list_switch_trunk_state", {"keywords": {"trunk_name": {"integer": "9" * 30}}}),
    ("switch_acl_ingress_counter", {"arguments": [1, 2]}),
    ("switch_acl_ingress_counter", {"keywords": {"class": 1, "not a name": 2, "id": 3}}),
    ("get_cli_command_output", {"arguments": ["get nonsense"]}),
]


@pytest.mark.parametrize(("name", "body"), CALLS)
def test_python_and_pytest_of_a_call_repeat_it(
    api: Any, simulator: Simulator, name: str, body: dict[str, Any]
) -> None:
    call = api("POST", f"/api/functions/{name}", body)
    code = call["code"]
    if "exception" in call:
        with pytest.raises(Exception, match=re.escape(call["exception"]["message"])) as raised:
            eval(code["python"], vars(simulator.module))
        assert raised.type.__name__ == call["exception"]["type"]
    else:
        value = eval(code["python"], vars(simulator.module))
        assert serialization.encode_result(value) == call["result"]
    namespace: dict[str, Any] = {}
    exec(code["pytest"], namespace)
    namespace[f"test_{name}"](simulator)


def test_curl_of_a_call_sends_it_again(api: Any) -> None:
    body = {"arguments": ["it's \u202e$(x)"]}
    path = "/api/functions/get_cli_command_output"
    curl = api("POST", path, body)["code"]["curl"]
    words = shlex.split(curl)
    assert words[:4] == ["curl", "-H", "Content-Type: application/json", "-d"]
    assert json.loads(words[4]) == body
    assert words[5:] == [f"http://localhost:8430{path}"]


@pytest.mark.requires("netlink")
def test_example_calls_fit_this_machine(api: Any) -> None:
    examples = {one["name"]: one["example_call"] for one in listed(api)}
    (links,) = (api("POST", "/api/functions/list_system_link_monitor_status", {})["result"],)
    port = links["value"][0]["name"]
    assert examples["list_switch_port_statistics"] == {"arguments": [port], "keywords": {}}
    wrapped = examples["decrypt_cookie"]["arguments"]
    plain = api("POST", "/api/functions/decrypt_cookie", {"arguments": wrapped})
    assert plain["result"]["value"] == "user=admin"


# Status


def test_revision_increases_with_every_change(api: Any, tmp_path: Path) -> None:
    revisions = [api("GET", "/api/status")]

    def change(method: str, path: str, body: Any = None) -> None:
        api(method, path, body)
        revisions.append(api("GET", "/api/status"))

    change("PUT", "/api/replies/build_switch_lg_state", {"text": "[]"})
    change("DELETE", "/api/replies/build_switch_lg_state")
    change("PUT", "/api/scenarios/mine", {})
    change("POST", "/api/scenarios/mine/duplicate", {"to": "copy"})
    change("POST", "/api/scenarios/mine/rename", {"to": "renamed"})
    change("DELETE", "/api/scenarios/copy")
    change("PUT", "/api/scenarios/current", {"name": None})
    numbers = [one["revision"] for one in revisions]
    assert numbers == sorted(set(numbers))
    assert [one["modified"] for one in revisions] == [False, True, *[False] * 6]
    initial, mine = ["initial"] * 3, ["mine", "mine", "renamed", "renamed"]
    assert [one["scenario"] for one in revisions] == [*initial, *mine, None]
    for path in ("/api/functions", "/api/replies", "/api/scenarios"):
        api("GET", path)
    api("POST", "/api/functions/new_cookie_id", {})
    api("PUT", "/api/replies/build_switch_lg_state", {"text": "{"}, status=422)
    assert api("GET", "/api/status") == revisions[-1]


@pytest.fixture
def slow_call(api: Any, simulator: Simulator) -> Iterator[threading.Event]:
    """A call that runs until the event is set."""
    started, end = threading.Event(), threading.Event()

    def reply(_: Any) -> Any:
        started.set()
        end.wait(60)
        return []

    simulator.set_reply("build_switch_lg_state", reply)
    thread = threading.Thread(target=api, args=("POST", "/api/functions/list_switch_lg_state", {}))
    thread.start()
    assert started.wait(60)
    yield end
    end.set()
    thread.join()


def test_running_call_is_shown_and_does_not_block_reading(
    api: Any, slow_call: threading.Event
) -> None:
    for path in ("/api/functions", "/api/replies", "/api/replies/get system arp", "/api/scenarios"):
        api("GET", path)
    time.sleep(0.2)
    running = api("GET", "/api/status")["running"]
    assert running["function"] == "list_switch_lg_state"
    assert 0.2 <= running["seconds"] < 30


def test_call_behind_a_running_one_gives_up(
    api: Any, slow_call: threading.Event, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(session_module, "MAX_WAIT", 0.1)
    for path in ("functions/new_cookie_id", "parse/arp"):
        body = {"text": ""} if "parse" in path else {}
        error = api("POST", f"/api/{path}", body, status=503)
        assert error["type"] == "/problems/busy"
        assert error["running"]["function"] == "list_switch_lg_state"
        assert "list_switch_lg_state has been running" in error["detail"]
    slow_call.set()
    monkeypatch.undo()
    assert "result" in api("POST", "/api/functions/new_cookie_id", {})
    assert api("GET", "/api/status")["running"] is None


def test_number_of_waiting_calls_is_limited(
    api: Any, session: Session, slow_call: threading.Event, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(session_module, "MAX_WAIT", 50.0)
    with ThreadPoolExecutor(session_module.MAX_WAITING) as threads:
        waiting = [
            threads.submit(session.call, "new_cookie_id", [], {})
            for _ in range(session_module.MAX_WAITING)
        ]
        while session._waiting._value:
            time.sleep(0.01)
        started = time.monotonic()
        api("POST", "/api/functions/new_cookie_id", {}, status=503)
        assert time.monotonic() - started < session_module.MAX_WAIT
        slow_call.set()
        assert all(future.result().exception is None for future in waiting)


# Parsed output


def test_parsed_lines_are_traced_to_values(api: Any) -> None:
    text = "get system arp\r\n" + ARP.replace("\n", "\r\n")
    parsed = api("POST", "/api/parse/arp", {"text": text})
    assert parsed["kind"] == "arp"
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


def test_long_output_is_parsed_without_origins(api: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(parse_capture, "MAX_SECONDS", 60.0)  # slow machines trace every line, too
    row = "192.0.2.10 0 02:00:00:aa:bb:cc port1\n"
    rows = parse_capture.MAX_LINES - 2
    parsed = api("POST", "/api/parse/arp", {"text": "Address\n" + row * rows})
    assert len(parsed["origins"]) == rows
    parsed = api("POST", "/api/parse/arp", {"text": "Address\n" + row * (rows + 1)})
    assert (len(parsed["result"]["value"]), parsed["origins"]) == (rows + 1, [])
    assert "more than 500 lines or 60 seconds" in parsed["note"]


@pytest.mark.parametrize("text", ["Address\n1 2 3 4\n", "rejected"])
def test_parsing_leaves_the_reply_of_commands_unchanged(api: Any, text: str) -> None:
    api("POST", "/api/parse/arp", {"text": text})
    call = api("POST", "/api/functions/get_system_arp_result", {})
    assert call["result"]["value"][0]["ipAddress"] == "192.0.2.10"
    assert call["source"] == "recorded"


@pytest.mark.parametrize("body", [{}, {"text": 7}, {"text": None}, {"text": "\ud800"}])
def test_parse_without_a_string_is_rejected(api: Any, body: dict[str, Any]) -> None:
    assert api("POST", "/api/parse/arp", body, status=400)["at"] == "text"


@pytest.mark.parametrize(
    ("text", "kind"), [(ARP, "arp"), (f"echo\r\n--More--  {ROUTING}", "routing"), (BFD, "bfd")]
)
def test_kind_of_output_is_recognized(api: Any, text: str, kind: str) -> None:
    parsed = api("POST", "/api/parse/auto", {"text": text})
    assert parsed == api("POST", f"/api/parse/{kind}", {"text": text})
    assert (parsed["kind"], bool(parsed["result"]["value"])) == (kind, True)


@pytest.mark.parametrize(
    ("kind", "text", "line"),
    [
        ("arp", "x\n" * 100_000, None),
        ("arp", "x\n" * 40_000 + ARP + "device #", 40_003),
        ("arp", ARP + "1 2 3 4\n" * 40_000 + "device #", 40_003),
        ("routing", "x\n" * 100_000 + "Routing", 100_001),
        ("routing", f"{ROUTING}\n" * 2_000 + "1 2 3\n", 6),
    ],
)
def test_failing_line_of_long_output_is_found(
    api: Any, monkeypatch: pytest.MonkeyPatch, kind: str, text: str, line: int | None
) -> None:
    run = mock.Mock(wraps=parse_capture._run)
    monkeypatch.setattr(parse_capture, "_run", run)
    assert api("POST", f"/api/parse/{kind}", {"text": text})["exception"]["line"] == line
    assert run.call_count < 25


def test_tracing_lines_ends_at_its_time_limit(api: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(parse_capture, "MAX_SECONDS", -1.0)
    parsed = api("POST", "/api/parse/arp", {"text": ARP})
    assert (len(parsed["result"]["value"]), parsed["origins"]) == (1, [])
    assert "origins are not traced" in parsed["note"]


def test_output_that_is_not_utf8_is_reported_with_its_line(session: Session) -> None:
    parsed, origins = session.parse("arp", b"Address\n1 2 3 4\n1 2 3 \xff\n")
    assert (parsed.line, parsed.problem, origins) == (3, "not UTF-8: byte 0xff", None)


def test_output_has_the_limit_of_a_reply(api: Any) -> None:
    text = "x" * (MAX_REPLY_BYTES + 1)
    assert api("POST", "/api/parse/arp", {"text": text}, status=413)["max_bytes"] == MAX_REPLY_BYTES


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
        (b'{"arguments": [1e999]}', "1e999 is greater than every float"),
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


@pytest.mark.parametrize(
    ("method", "path", "body", "at"),
    [
        ("POST", "/api/functions/new_cookie_id", {"arguments": {}}, "arguments"),
        ("POST", "/api/functions/new_cookie_id", {"arguments": "x"}, "arguments"),
        ("POST", "/api/functions/new_cookie_id", {"keywords": []}, "keywords"),
        ("POST", "/api/functions/new_cookie_id", {"argument": [1]}, "argument"),
        ("POST", "/api/parse/arp", {"text": "", "texts": 1}, "texts"),
        ("PUT", "/api/scenarios/current", {}, "name"),
        ("PUT", "/api/scenarios/current", {"name": None, "names": 1}, "names"),
        ("PUT", "/api/scenarios/mine", {"overwrite": {}}, "overwrite"),
        ("PUT", "/api/scenarios/mine", {"overwritten": []}, "overwritten"),
        ("POST", "/api/scenarios/initial/rename", {}, "to"),
        ("POST", "/api/scenarios/initial/duplicate", {"to": None}, "to"),
        ("PUT", "/api/replies/x", {"text": "", "base": 7}, "base"),
        ("PUT", "/api/replies/x", {"txt": "", "text": ""}, "txt"),
    ],
)
def test_invalid_member_of_a_body_is_rejected(
    api: Any, method: str, path: str, body: Any, at: str
) -> None:
    before = api("GET", "/api/status")
    error = api(method, path, body, status=400)
    assert (error["type"], error["at"]) == ("/problems/invalid-member", at)
    assert api("GET", "/api/status") == before


@pytest.mark.parametrize("name", ["json", "__import__", "Counters", "_logger", "nonsense"])
def test_call_of_a_name_that_is_not_a_function_is_rejected(api: Any, name: str) -> None:
    error = api("POST", f"/api/functions/{name}", {}, status=404)
    assert error["detail"] == f"the module has no function {name}"


@pytest.mark.parametrize(
    ("method", "path", "body", "kind"),
    [
        ("GET", "/api/nothing", None, "unknown-resource"),
        ("POST", "/api/nothing", {}, "unknown-resource"),
        ("GET", "/static/nothing.js", None, "unknown-resource"),
        ("GET", "/problems/nothing", None, "unknown-resource"),
        ("POST", "/api/functions/", {}, "unknown-resource"),
        ("POST", "/api/parse/stp", {"text": ""}, "unknown-resource"),
        ("POST", "/api/parse/auto", {"text": "x"}, "unrecognized-text"),
        ("PUT", "/api/scenarios/current", {"name": "nowhere"}, "unknown-scenario"),
        ("POST", "/api/functions/new_cookie_id", [], "body-not-json"),
        ("POST", "/api/functions", {}, "method-not-allowed"),
    ],
)
def test_error_is_a_problem_details_object(
    client: TestApp, api: Any, method: str, path: str, body: Any, kind: str
) -> None:
    problem = PROBLEMS[kind]
    error = api(method, path, body, status=problem.status)
    head = {"type": f"/problems/{kind}", "title": problem.title, "status": problem.status}
    assert {**error, **head} == error
    assert error["detail"]
    assert client.get(error["type"]).text == f"{problem.status}: {problem.title}\n"


@pytest.mark.parametrize(
    ("path", "allowed"),
    [
        ("/", "GET, HEAD, OPTIONS"),
        ("/static/console.js", "GET, HEAD, OPTIONS"),
        ("/problems/busy", "GET, HEAD, OPTIONS"),
        ("/api/status", "GET, HEAD, OPTIONS"),
        ("/api/openapi.json", "GET, HEAD, OPTIONS"),
        ("/api/functions", "GET, HEAD, OPTIONS"),
        ("/api/functions/new_cookie_id", "POST, OPTIONS"),
        ("/api/parse/arp", "POST, OPTIONS"),
        ("/api/scenarios", "GET, HEAD, OPTIONS"),
        ("/api/scenarios/current", "GET, HEAD, PUT, OPTIONS"),
        ("/api/scenarios/initial", "GET, HEAD, PUT, DELETE, OPTIONS"),
        ("/api/scenarios/initial/rename", "POST, OPTIONS"),
        ("/api/scenarios/initial/duplicate", "POST, OPTIONS"),
        ("/api/scenarios/initial/archive", "GET, HEAD, PUT, OPTIONS"),
        ("/api/replies", "GET, HEAD, OPTIONS"),
        ("/api/replies/get system arp", "GET, HEAD, PUT, DELETE, OPTIONS"),
    ],
)
def test_every_resource_reports_its_methods(client: TestApp, path: str, allowed: str) -> None:
    for method in {"GET", "HEAD", "POST", "PUT", "PATCH", "DELETE"} - set(allowed.split(", ")):
        for kind in ("application/json", "text/plain"):
            response = client.request(path, method=method, content_type=kind, body=b"", status=405)
            assert response.headers["Allow"] == allowed
    response = client.options(path, status=204)
    assert (response.headers["Allow"], response.body) == (allowed, b"")
    if "HEAD" in allowed:
        head, got = client.head(path, status=200), client.get(path)
        assert (head.body, head.content_type) == (b"", got.content_type)


def test_internal_error_is_logged_and_reported(
    api: Any, session: Session, monkeypatch: pytest.MonkeyPatch, caplog: pytest.LogCaptureFixture
) -> None:
    monkeypatch.setattr(session, "call", lambda *_: 1 // 0)
    error = api("POST", "/api/functions/new_cookie_id", {}, status=500)
    assert error["detail"].startswith("internal error: ZeroDivisionError: ")
    assert "Traceback" in caplog.text


@pytest.mark.parametrize("depth", [100, 600, 900])
def test_deeply_nested_value_causes_no_server_error(client: TestApp, depth: int) -> None:
    nested = "[" * depth + "]" * depth
    kind = {"Content-Type": "application/json"}
    path = "/api/functions/list_switch_trunk_state"
    argument = client.post(path, f'{{"arguments": [{nested}]}}', kind, status="*")
    client.put_json("/api/replies/build_switch_lg_state", {"text": nested})
    result = client.post_json("/api/functions/list_switch_lg_state", {}, status="*")
    assert {argument.status_int, result.status_int} <= {200, 400, 413}
    if depth == 100:
        assert result.json["result"]["repr"] == nested
    else:
        assert result.json["detail"] == "a value is nested too deeply"
    assert "result" in client.post_json("/api/functions/new_cookie_id", {}).json


def test_code_of_a_call_has_replies_that_are_not_json(api: Any, simulator: Simulator) -> None:
    simulator.set_reply("build_switch_lg_state", RawJSON("{"))
    call = api("POST", "/api/functions/list_switch_lg_state", {})
    namespace: dict[str, Any] = {}
    exec(call["code"]["pytest"], namespace)
    namespace["test_list_switch_lg_state"](simulator)


def test_every_route_has_its_own_view() -> None:
    assert len({route.view for route in ROUTES}) == len(ROUTES)


def test_closed_session_is_unavailable(api: Any, session: Session) -> None:
    session.close()
    assert api("POST", "/api/functions/new_cookie_id", {}, status=503)["detail"]
