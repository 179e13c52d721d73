"""The stand-in's tools: what they print, what they refuse, their exit statuses."""

from __future__ import annotations

import fcntl
import io
import json
import os
import pty
import re
import struct
import subprocess
import sys
import termios
from pathlib import Path
from typing import Any

import pytest

from tests.support.function_table import FUNCTIONS
from tests.support.netns import ROOT
from veldarin_simulator import stub
from veldarin_simulator.__main__ import main
from veldarin_simulator.cli import common, demo
from veldarin_simulator.providers import bfd, serial_number

CAPTURES = Path(__file__).parents[1] / "data" / "cli_output"
CERTIFICATES = "veldarin_simulator.cli.demo._CERTIFICATES"


@pytest.fixture(autouse=True)
def workstation(
    tmp_path: Path, tmp_path_factory: pytest.TempPathFactory, monkeypatch: pytest.MonkeyPatch
) -> Path:
    """A machine identifier and a state directory of the test's own, no routing daemon; returns the
    state directory."""
    path = tmp_path / "state"
    monkeypatch.setenv("APPLIANCE_STATE", str(path))
    machine_id = tmp_path_factory.mktemp("etc") / "machine-id"
    machine_id.write_text("0123456789abcdef0123456789abcdef\n")
    monkeypatch.setattr(serial_number, "_MACHINE_IDS", (machine_id,))
    monkeypatch.setattr(bfd, "_shell", lambda command: None)
    return path


@pytest.fixture
def run(capsys: pytest.CaptureFixture[str]) -> Any:
    """Runs a tool in this process: (exit status, standard output, standard error)."""

    def run(*texts: str) -> tuple[int, str, str]:
        capsys.readouterr()
        try:
            status = main(list(texts))
        except SystemExit as end:
            status = int(end.code or 0)
        out, err = capsys.readouterr()
        return status, out, err

    return run


def started(*texts: str, **settings: Any) -> subprocess.CompletedProcess[str]:
    """A tool in a process of its own."""
    return subprocess.run(
        [sys.executable, "-m", "veldarin_simulator", *texts],
        cwd=ROOT,
        capture_output=True,
        text=True,
        timeout=120,
        check=False,
        **settings,
    )


# tour


LINE = re.compile(r"^ ?(\d+)  (\S.*?)  +(live|recorded|no call|raised)  +(.*)$")


def toured(out: str) -> dict[str, tuple[str, str, str]]:
    """Function name to call, source and value, of the lines between heading and counts."""
    lines = out.splitlines()
    assert "veldarin.modules.modules_util" in lines[0]
    found = {}
    for number, line in enumerate(lines[1:-1], 1):
        match = LINE.match(line)
        assert match, line
        assert int(match[1]) == number
        found[match[2].split("(")[0]] = (match[2], match[3], match[4])
    return found


@pytest.mark.requires("cryptography", "netlink")
def test_the_tour_has_a_heading_thirty_lines_in_order_and_the_counts(run: Any) -> None:
    status, out, err = run("demo")
    assert (status, err) == (0, "")
    found = toured(out)
    assert list(found) == [function.name for function in FUNCTIONS]
    sources = [source for _, source, _ in found.values()]
    counted = dict(re.findall(r"(\d+) (live|recorded|no call|raised)", out.splitlines()[-1]))
    assert out.splitlines()[-1].startswith("30 functions: ")
    assert {word: int(number) for number, word in counted.items()} == {
        "live": sources.count("live"),
        "recorded": sources.count("recorded"),
        "no call": sources.count("no call"),
    }
    assert "\x1b" not in out
    assert max(map(len, out.splitlines())) <= 140


@pytest.mark.requires("cryptography", "netlink")
def test_the_tour_says_what_is_live_and_what_is_recorded(run: Any) -> None:
    found = toured(run("demo")[1])
    by_source: dict[str, set[str]] = {}
    for name, (_, source, _) in found.items():
        by_source.setdefault(source, set()).add(name)
    assert by_source["no call"] == {
        "switch_acl_egress_counter",
        "switch_acl_prelookup_counter",
        "list_switch_mclag_list",
        "switch_mclag_icl",
    }
    assert by_source["recorded"] == {
        "switch_acl_ingress_counter",
        "list_switch_stp_state",
        "list_switch_lg_state",
        "list_switch_lldp_state",
        "list_switch_trunk_state",
        "list_switch_module_summary",
        "get_bfd_neighbor",
        "list_bfd_neighbor",
        "get_system_sniffer_profile_summary",
        "capture_sniffer_profile",
    }


@pytest.mark.requires("cryptography", "netlink")
def test_the_tours_values_are_real(run: Any, workstation: Path) -> None:
    found = toured(run("demo")[1])
    assert found["decrypt_cookie"][2] == "b'user=admin; level=7'"
    assert found["check_cert_expiration"][2] == "True"
    assert found["get_routing_table_result"][2].startswith("{'entry': '")
    assert found["get_cli_command_output"][2].startswith("'Address")
    secret = (workstation / "preference-cookie-secret").read_text()
    assert len(secret) == 64
    shown = found["get_token"][2]
    assert secret[:8] in shown
    assert secret[8:16] not in shown


@pytest.mark.requires("cryptography", "netlink")
def test_the_secret_is_the_same_on_the_next_tour(run: Any, workstation: Path) -> None:
    run("demo")
    first = (workstation / "preference-cookie-secret").read_text()
    run("demo")
    assert (workstation / "preference-cookie-secret").read_text() == first


@pytest.mark.requires("cryptography", "netlink")
def test_without_a_certificate_on_the_machine_the_tour_makes_one_and_says_so(
    run: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(demo, "_CERTIFICATES", ("/no/such/certificate",))
    call, source, value = toured(run("demo")[1])["check_cert_expiration"]
    assert "throwaway" in call
    assert (source, value) == ("live", "True")


@pytest.mark.requires("cryptography", "netlink")
def test_a_function_that_raises_is_a_line_too_and_fails_the_tour(run: Any, tmp_path: Path) -> None:
    scenario = tmp_path / "mine"
    (scenario / "cli").mkdir(parents=True)
    (scenario / "cli" / "get system arp.txt").write_text("no table\n")
    (scenario / "build_system_interface_physical.json").write_text("[]")
    status, out, _ = run("demo", "--scenario", str(scenario))
    assert status == 1
    found = toured(out)
    assert found["get_system_arp_result"][1:] == ("raised", "IndexError: list index out of range")
    assert found["list_system_interface_physical"][1] == "raised"
    assert found["get_cli_command_output"][1:] == ("recorded", r"'no table\n'")
    assert "2 raised" in out.splitlines()[-1]


def on_a_terminal(columns: int, *command: str) -> str:
    """What a command prints on a terminal of that width; it has to succeed."""
    ours, theirs = pty.openpty()
    try:
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("4H", 50, columns, 0, 0))
        environment = {name: os.environ[name] for name in os.environ if name != "COLUMNS"}
        with subprocess.Popen(
            command,
            cwd=ROOT,
            env={**environment, "TERM": "xterm"},
            stdin=theirs,
            stdout=theirs,
            stderr=theirs,
        ) as process:
            os.close(theirs)
            printed = b"".join(iter(lambda: _read(ours), b""))
        assert process.returncode == 0, printed
    finally:
        os.close(ours)
    return printed.decode()


def _read(common: int) -> bytes:
    # A terminal whose last user has gone answers with an error, not with an end of file.
    try:
        return os.read(common, 65536)
    except OSError:
        return b""


@pytest.mark.parametrize("columns", [60, 100, 200])
@pytest.mark.requires("cryptography", "netlink")
def test_on_a_terminal_a_function_still_takes_one_line(columns: int) -> None:
    printed = on_a_terminal(columns, sys.executable, "-m", "veldarin_simulator", "demo")
    plain = re.sub(r"\x1b\[[0-9;]*m", "", printed).splitlines()
    assert len(plain) == 32
    assert max(map(len, plain)) <= columns
    assert "\x1b[32m" in printed


# call


def test_call_prints_the_result_as_json_and_the_source_apart(run: Any) -> None:
    status, out, err = run("call", "list_switch_lg_state")
    assert status == 0
    assert json.loads(out)[0]["group"] == "lg1"
    assert err == "appliance: build_switch_lg_state: recorded\n"
    status, out, err = run("call", "list_switch_port_statistics", "lo")
    assert json.loads(out)[0]["port_name"] == "lo"
    assert err == "appliance: build_switch_port_statistics: live\n"


def test_call_says_nothing_of_a_source_where_no_service_was_asked(run: Any) -> None:
    assert run("call", "switch_mclag_icl") == (0, "null\n", "")


@pytest.mark.requires("cryptography")
def test_a_cookie_comes_back_in_another_process(run: Any, workstation: Path) -> None:
    status, wrapped, _ = run("call", "encrypt_cookie", "grüße")
    assert status == 0
    done = started("call", "decrypt_cookie", "--", json.loads(wrapped))
    assert json.loads(done.stdout) == "grüße"


@pytest.mark.requires("cryptography")
def test_bytes_that_are_no_text_are_printed_as_escapes(run: Any) -> None:
    wrapped = json.loads(run("call", "encrypt_cookie", os.fsdecode(b"a\xff\\"))[1])
    assert json.loads(run("call", "decrypt_cookie", "--", wrapped)[1]) == "a\\xff\\"


FACE = """
def one(path: bytes, /) -> bool: ...
def text(name: str | None, /) -> object: ...
def anything(value: object = None) -> object: ...
def two(profile_name: str | None, event: str | None) -> object: ...
def bare(value): ...
"""


@pytest.fixture
def face(tmp_path: Path) -> dict[str, stub.Function]:
    """Functions declared for the tests of arguments."""
    path = tmp_path / "face.pyi"
    path.write_text(FACE)
    return stub.functions(path)


@pytest.mark.parametrize(
    ("function", "texts", "positional", "named"),
    [
        ("one", ["/etc/x"], [b"/etc/x"], {}),
        ("one", ["path=/etc/x"], [b"path=/etc/x"], {}),
        ("one", [os.fsdecode(b"\xff")], [b"\xff"], {}),
        ("one", ["None"], [None], {}),
        ("one", [""], [b""], {}),
        ("one", ["7"], [b"7"], {}),
        ("one", [], [], {}),
        ("text", ["7"], ["7"], {}),
        ("text", ["null"], [None], {}),
        ("text", ["true"], ["true"], {}),
        ("anything", ["7"], [7], {}),
        ("anything", ['"7"'], ["7"], {}),
        ("anything", ["true"], [True], {}),
        ("anything", ['{"a": [1, null]}'], [{"a": [1, None]}], {}),
        ("anything", ["port 1"], ["port 1"], {}),
        ("anything", ["[" * 100_000], ["[" * 100_000], {}),
        ("anything", ["value=7"], [], {"value": 7}),
        ("anything", ["value=None"], [], {"value": None}),
        ("anything", ["other=7"], ["other=7"], {}),
        ("anything", ["1", "2", "x"], [1, 2, "x"], {}),
        ("two", ["p", "event=Stop"], ["p"], {"event": "Stop"}),
        ("two", ["event=a=b", "p"], ["p"], {"event": "a=b"}),
        ("bare", ["1"], [1], {}),
    ],
)
def test_arguments_are_taken_by_the_declared_type(
    face: dict[str, stub.Function],
    function: str,
    texts: list[str],
    positional: list[Any],
    named: dict[str, Any],
) -> None:
    taken = face[function].arguments(texts)
    assert taken == (positional, named)
    assert [type(value) for value in taken[0]] == [type(value) for value in positional]


def test_the_modules_face_declares_what_call_takes() -> None:
    declared = stub.functions()
    assert list(declared) == [function.name for function in FUNCTIONS]
    for function in FUNCTIONS:
        parameters = declared[function.name].parameters
        assert [p.name for p in parameters] == [p.name for p in function.parameters]
        for parameter, expected in zip(parameters, function.parameters):
            assert parameter.keyword == (function.kind == "keywords")
            if expected.type is not None:
                assert parameter.types == {expected.type.__name__}


def test_numbers_and_keywords_reach_the_module(run: Any) -> None:
    by_position = json.loads(run("call", "switch_acl_ingress_counter", "7")[1])
    assert by_position == json.loads(run("call", "switch_acl_ingress_counter", "policy_id=7")[1])
    assert [row["policy_id"] for row in by_position] == [7]
    out = run("call", "capture_sniffer_profile", "event=Running", "profile_name=lan-trace")[1]
    assert json.loads(out)["state"] == "Running"


def test_what_the_module_raises_is_shown_with_the_modules_traceback_only(run: Any) -> None:
    status, out, err = run("call", "switch_acl_ingress_counter", "1", "2")
    assert (status, out) == (1, "")
    assert err.splitlines() == [
        "Traceback (most recent call last):",
        '  File "veldarin/modules/modules_util", line 94, in '
        "veldarin.modules.modules_util.switch_acl_ingress_counter",
        "TypeError: switch_acl_ingress_counter() takes at most 1 positional argument (2 given)",
    ]


def test_a_command_that_nobody_knows_fails_as_on_the_appliance(run: Any) -> None:
    status, out, err = run("call", "get_cli_command_output", "get nonsense")
    assert (status, out) == (1, "")
    assert err.splitlines()[-1].endswith("CFunctionError: get_cli_command_output's result is null.")


def test_an_answer_that_fails_is_shown_as_the_cause(run: Any, workstation: Path) -> None:
    workstation.mkdir()
    (workstation / "cookie-key").write_bytes(b"short")
    status, out, err = run("call", "encrypt_cookie", "x")
    assert (status, out) == (1, "")
    assert err.splitlines()[-1].startswith("ValueError: ")
    assert "cookie-key: holds 5 bytes in place of 32; remove the file" in err


def test_options_and_arguments_may_be_mixed(run: Any, tmp_path: Path) -> None:
    (tmp_path / "build_switch_stp_state.json").write_text('[{"instance_id": 3}]')
    for texts in (
        ("--scenario", str(tmp_path), "list_switch_stp_state", "3"),
        ("list_switch_stp_state", "--scenario", str(tmp_path), "3"),
        ("list_switch_stp_state", "3", "--scenario", str(tmp_path)),
    ):
        status, out, _ = run("call", *texts)
        assert (status, json.loads(out)) == (0, [{"instance_id": 3}])


@pytest.mark.requires("cryptography")
def test_an_argument_may_begin_with_a_dash(run: Any) -> None:
    wrapped = json.loads(run("call", "encrypt_cookie", "--", "--more")[1])
    assert json.loads(run("call", "decrypt_cookie", "--", wrapped)[1]) == "--more"


# parse


ARP = (
    b"get system arp\r\n"
    b"Address           Age(min)   Hardware address   Interface\r\n"
    b"192.0.2.10        0          02:00:00:aa:bb:cc  port1\r\n"
    b"--More--          192.0.2.11        3          02:00:00:aa:bb:cd  port1 vlan10\r\n"
    b"\r\n"
)
ROUTING = (
    b"Routing entry for 192.0.2.0/24\r\n"
    b"  Known via static, distance 10, metric 0, best\r\n"
    b"  Last update 01:02:03 ago\r\n"
    b"--More--  * 198.51.100.1, via port1\r\n"
)


@pytest.fixture
def capture(tmp_path: Path) -> Any:
    """Writes a captured text; returns its path."""

    def written(content: bytes) -> str:
        path = tmp_path / "capture.txt"
        path.write_bytes(content)
        return str(path)

    return written


def test_a_capture_with_carriage_returns_and_pager_prompts_is_parsed(
    run: Any, capture: Any
) -> None:
    status, out, err = run("parse", "arp", capture(ARP))
    assert (status, err) == (0, "")
    assert [(row["ipAddress"], row["interface"]) for row in json.loads(out)] == [
        ("192.0.2.10", "port1"),
        ("192.0.2.11", "port1 vlan10"),
    ]
    status, out, err = run("parse", "routing", capture(ROUTING))
    assert (status, err) == (0, "")
    assert json.loads(out)["lastUpdate"] == "01:02:03"
    assert json.loads(out)["table"] == [{"main": "*", "ip": "198.51.100.1", "interface": "port1"}]


def test_a_capture_may_come_through_standard_input(
    run: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(sys, "stdin", io.TextIOWrapper(io.BytesIO(ARP)))
    status, out, _ = run("parse", "arp", "-")
    assert status == 0
    assert len(json.loads(out)) == 2


def test_bfd_captures_are_parsed_afresh_and_what_is_passed_over_is_told(
    run: Any, capture: Any
) -> None:
    for _ in range(2):  # nothing stays from one to the next
        status, out, err = run("parse", "bfd", str(CAPTURES / "bfd-peers.txt"))
        assert status == 0
        (session,) = json.loads(out).values()
        assert session["neighbor_ip"] == "198.51.100.77"
        assert err.count("passed over a line: e:argument of type 'type' is not iterable") == 3
    text = b"BFD\npeer 192.0.2.1 interface port1\n  Status: up\n"
    status, out, err = run("parse", "bfd", capture(text))
    assert list(json.loads(out)) == ["192.0.2.1_port1"]
    assert err == ""
    assert run("parse", "bfd", capture(b"nobody\n")) == (0, "{}\n", "")


REFUSED = {
    # kind, text, where, the last line
    "prompt": ("arp", ARP + b"device # \r\n", ":6: the parser refuses this line: 'device #'"),
    "first row": ("arp", b"Address\nx\ny\n", ":2: the parser refuses this line: 'x'"),
    "no table": ("arp", b"hello\n", ': no line begins with "Address"'),
    "nothing": ("arp", b"", ': no line begins with "Address"'),
    "hop": ("routing", ROUTING + b"% trailer", ":5: the parser refuses this line: '% trailer'"),
    "short header": ("routing", b"\nRouting entry\na\nb\n", ":2: the parser refuses the header"),
    "NUL": ("arp", b"hello\0\nAddress\n", ": the text ends at its first NUL byte, offset 5"),
    "no entry": ("routing", b"% Network not in table\n", ': no line begins with "Routing"'),
}


@pytest.mark.parametrize(("kind", "text", "where"), REFUSED.values(), ids=REFUSED)
def test_a_refused_capture_is_told_with_the_line(
    run: Any, capture: Any, kind: str, text: bytes, where: str
) -> None:
    path = capture(text)
    status, out, err = run("parse", kind, path)
    assert (status, out) == (1, "")
    lines = err.splitlines()
    assert lines[0].startswith(f"appliance: {path}{where}")
    assert lines[-1] == "IndexError: list index out of range"
    if b"\0" in text:  # what stands behind it is not looked at
        assert lines[1] == f'appliance: {path}: no line begins with "Address"'
    assert len(lines) == 2 + text.count(b"\0")


def test_a_capture_that_is_no_utf_8_is_refused_with_the_line(run: Any, capture: Any) -> None:
    status, _, err = run("parse", "arp", capture(b"Address\n1 2 3 4\n1 2 3 \xff\n"))
    assert status == 1
    assert ":3: the parser refuses this line" in err
    assert err.splitlines()[-1].startswith("UnicodeDecodeError: 'utf-8' codec can't decode")


def test_a_capture_ends_at_its_first_nul_and_the_person_is_told(run: Any, capture: Any) -> None:
    status, out, err = run("parse", "arp", capture(ARP + b"\0not a row\n"))
    assert status == 0
    assert len(json.loads(out)) == 2
    assert f"the text ends at its first NUL byte, offset {len(ARP)}" in err


def test_a_long_capture_is_searched_quickly(run: Any, capture: Any) -> None:
    rows = b"192.0.2.10 0 02:00:00:aa:bb:cc port1\n" * 20_000
    status, _, err = run("parse", "arp", capture(b"Address\n" + rows + b"end\n"))
    assert status == 1
    assert ":20002: the parser refuses this line: 'end'" in err


# Usage


def test_usage_errors_are_one_line_and_exit_status_2(run: Any, tmp_path: Path) -> None:
    (tmp_path / "build_switch_lg_state.json").write_text("{\n!\n")
    scenario = ("--scenario", str(tmp_path))
    cases = {
        (): "which tool: demo, call, parse, console?",
        ("dance",): "which tool: demo, call, parse, console?",
        ("demo", "now"): "unrecognized arguments: now",
        ("demo", "--scenario"): "expected one argument",
        ("demo", *scenario): "build_switch_lg_state.json:2: not JSON: ",
        ("call",): "which function?",
        ("call", "list_switch_lg_stat"): "did you mean list_switch_lg_state?",
        ("call", "__init__"): "the module has no function __init__: see ",
        ("call", "json"): "the module has no function json: see ",
        ("call", "--loud", "get_token"): "unrecognized arguments: --loud",
        ("call", "get_token", "--scenario", "/no/such"): "/no/such: no such file or directory",
        ("call", "get_token", *scenario): "build_switch_lg_state.json:2: not JSON: ",
        ("parse",): "required: kind, FILE",
        ("parse", "stp", "x"): "invalid choice: 'stp' (choose from 'arp', 'routing', 'bfd')",
        ("parse", "arp"): "required: FILE",
        ("parse", "arp", "/no/such"): "/no/such: no such file or directory",
        ("parse", "arp", str(tmp_path)): "is a directory",
        ("console", "--port", "65536"): "a port is a number up to 65535, not 65536",
        ("console", "--host", "example.invalid"): "--host is an IP address",
        ("console", "--scenario", "/no/such"): "/no/such: no such file or directory",
    }
    for texts, message in cases.items():
        status, out, err = run(*texts)
        assert (status, out) == (2, ""), texts
        assert err.count("\n") == 1, err
        assert err.startswith("appliance: "), err
        assert message in err


@pytest.mark.parametrize("tool", ["", "demo", "call", "parse", "console"])
def test_help_tells_what_a_tool_is_for_and_its_exit_statuses(run: Any, tool: str) -> None:
    status, out, err = run(*filter(None, (tool, "--help")))
    assert (status, err) == (0, "")
    assert out.startswith(f"usage: python -m veldarin_simulator {tool}".rstrip())
    if tool:
        assert "exit status: 0 " in out
    if tool == "call":
        for function in FUNCTIONS:
            assert f"  {function.name}(" in out


def test_without_a_build_there_is_one_line_that_says_what_to_do(tmp_path: Path) -> None:
    done = started("demo", env={**os.environ, "MODULES_UTIL_BUILD": str(tmp_path)})
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.count("\n") == 1
    assert "run `make build`" in done.stderr


def test_a_state_directory_that_cannot_be_made_is_told(
    run: Any, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    (tmp_path / "file").write_text("")
    monkeypatch.setenv("APPLIANCE_STATE", str(tmp_path / "file" / "state"))
    status, out, err = run("call", "get_token")
    assert status == 0
    assert len(json.loads(out)) == 64
    assert err.startswith("appliance: the preference secret is not kept: ")


def test_a_reader_that_has_seen_enough_is_no_error() -> None:
    command = f"{sys.executable} -m veldarin_simulator demo | head -n 1"
    done = subprocess.run(
        ["bash", "-c", f"set -o pipefail; {command}"],
        cwd=ROOT,
        capture_output=True,
        text=True,
        timeout=120,
        check=False,
    )
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.count("\n") == 1


def test_a_face_that_declares_nothing_stops_every_tool(
    capsys: pytest.CaptureFixture[str], tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    empty = tmp_path / "empty.pyi"
    empty.write_text("")
    monkeypatch.setattr(stub.functions, "__defaults__", (empty,))
    with pytest.raises(SystemExit):
        common.known_functions()
    assert capsys.readouterr().err == f"appliance: {empty}: declares no function\n"
