"""The command-line tools: output, rejected input, exit statuses."""

from __future__ import annotations

import io
import json
import os
import re
import shlex
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest

from tests.support.function_table import FUNCTIONS
from tests.support.netns import ROOT
from veldarin_simulator import example_arguments, state_dir
from veldarin_simulator.__main__ import main
from veldarin_simulator.providers import bfd, serial_number


@pytest.fixture
def run(capsys: pytest.CaptureFixture[str]) -> Any:
    """Run a tool in this process: (exit status, standard output, standard error)."""

    def run(*texts: str) -> tuple[int, str, str]:
        capsys.readouterr()
        try:
            status = main(list(texts))
        except SystemExit as end:
            status = int(end.code or 0)
        out, err = capsys.readouterr()
        return status, out, err

    return run


TOOL = (sys.executable, "-m", "veldarin_simulator")
LINE = re.compile(r"^ ?(\d+)  (\S.*?)  +(live|recorded|no call|raised)  +(.*)$")


def demo_rows(out: str) -> dict[str, tuple[str, str, str]]:
    """Return function name to call, source and value."""
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
def test_demo_prints_thirty_rows_with_sources_and_counts(run: Any) -> None:
    status, out, err = run("demo")
    assert (status, err) == (0, "")
    found = demo_rows(out)
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
    by_source: dict[str, set[str]] = {}
    for name, (_, source, _) in found.items():
        by_source.setdefault(source, set()).add(name)
    no_call = "switch_acl_egress_counter switch_acl_prelookup_counter list_switch_mclag_list"
    assert by_source["no call"] == {*no_call.split(), "switch_mclag_icl"}
    recorded = """
    switch_acl_ingress_counter list_switch_stp_state list_switch_lg_state list_switch_lldp_state
    list_switch_trunk_state list_switch_module_summary get_bfd_neighbor list_bfd_neighbor
    get_system_sniffer_profile_summary capture_sniffer_profile
    """
    assert by_source["recorded"] == set(recorded.split())


@pytest.fixture(autouse=True)
def machine(tmp_path_factory: pytest.TempPathFactory, monkeypatch: pytest.MonkeyPatch) -> None:
    """Replace the machine identifier, and disable the routing daemon."""
    machine_id = tmp_path_factory.mktemp("etc") / "machine-id"
    machine_id.write_text("0123456789abcdef0123456789abcdef\n")
    monkeypatch.setattr(serial_number, "_MACHINE_IDS", (machine_id,))
    monkeypatch.setattr(bfd, "_vtysh", lambda command: None)


@pytest.mark.requires("cryptography", "netlink")
def test_demo_values_are_real_and_the_secret_stays(run: Any, state_directory: Path) -> None:
    found = demo_rows(run("demo")[1])
    assert found["decrypt_cookie"][2] == "b'user=admin'"
    assert found["check_cert_expiration"][2] == "True"
    assert found["get_routing_table_result"][2].startswith("{'entry': '")
    assert found["get_cli_command_output"][2].startswith("'Address")
    secret = (state_directory / "preference-cookie-secret").read_text()
    assert len(secret) == 64
    run("demo")
    assert (state_directory / "preference-cookie-secret").read_text() == secret
    shown = found["get_token"][2]
    assert secret[:8] in shown
    assert secret[8:16] not in shown


@pytest.mark.requires("cryptography", "netlink")
def test_demo_without_certificate_creates_one(run: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(example_arguments, "_CERTIFICATES", ("/no/such/certificate",))
    call, source, value = demo_rows(run("demo")[1])["check_cert_expiration"]
    assert "temporary-" in call
    assert (source, value) == ("live", "True")


@pytest.mark.requires("cryptography", "netlink")
def test_demo_with_raising_function_exits_1(run: Any, tmp_path: Path) -> None:
    scenario = tmp_path / "mine"
    (scenario / "cli").mkdir(parents=True)
    (scenario / "cli" / "get system arp.txt").write_text("no table\n")
    (scenario / "build_system_interface_physical.json").write_text("[]")
    status, out, _ = run("demo", "--scenario", str(scenario))
    assert status == 1
    found = demo_rows(out)
    assert found["get_system_arp_result"][1:] == ("raised", "IndexError: list index out of range")
    assert found["list_system_interface_physical"][1] == "raised"
    assert found["get_cli_command_output"][1:] == ("recorded", r"'no table\n'")
    assert "2 raised" in out.splitlines()[-1]


def on_a_terminal(columns: int, *command: str) -> str:
    """Return the output of a command on a terminal of that width; it must succeed."""
    environment = {name: os.environ[name] for name in os.environ if name != "COLUMNS"}
    done = run_process(
        *("script", "--quiet", "--return", "/dev/null", "--command"),
        f"stty cols {columns}; exec {shlex.join(command)}",
        env={**environment, "TERM": "xterm"},
        stdin=subprocess.DEVNULL,
    )
    assert done.returncode == 0, done.stdout
    return str(done.stdout)


@pytest.mark.parametrize("columns", [60, 100, 200])
@pytest.mark.requires("cryptography", "netlink")
def test_demo_row_fits_the_terminal(columns: int) -> None:
    printed = on_a_terminal(columns, *TOOL, "demo")
    plain = re.sub(r"\x1b\[[0-9;]*m", "", printed).splitlines()
    assert len(plain) == 32
    assert max(map(len, plain)) <= columns
    assert "\x1b[32m" in printed


def test_call_prints_json_and_the_source(run: Any) -> None:
    status, out, err = run("call", "list_switch_lg_state")
    assert status == 0
    assert json.loads(out)[0]["group"] == "lg1"
    assert err == "veldarin_simulator: build_switch_lg_state: recorded\n"
    status, out, err = run("call", "list_switch_port_statistics", "lo")
    assert json.loads(out)[0]["port_name"] == "lo"
    assert err == "veldarin_simulator: build_switch_port_statistics: live\n"
    assert run("call", "switch_mclag_icl") == (0, "null\n", "")  # calls no service


def run_process(*command: str, **settings: Any) -> Any:
    """Run a command in another process."""
    return subprocess.run(
        command, cwd=ROOT, capture_output=True, text=True, timeout=120, **settings
    )


@pytest.mark.requires("cryptography")
def test_cookie_unwraps_in_another_process(run: Any, state_directory: Path) -> None:
    status, wrapped, _ = run("call", "encrypt_cookie", "grüße")
    assert status == 0
    done = run_process(*TOOL, "call", "decrypt_cookie", "--", json.loads(wrapped))
    assert json.loads(done.stdout) == "grüße"


@pytest.mark.requires("cryptography")
def test_bytes_that_are_not_utf8_print_as_escapes(run: Any) -> None:
    wrapped = json.loads(run("call", "encrypt_cookie", os.fsdecode(b"a\xff\\"))[1])
    assert json.loads(run("call", "decrypt_cookie", "--", wrapped)[1]) == "a\\xff\\"


def test_call_passes_numbers_and_keywords(run: Any) -> None:
    by_position = json.loads(run("call", "switch_acl_ingress_counter", "7")[1])
    assert by_position == json.loads(run("call", "switch_acl_ingress_counter", "policy_id=7")[1])
    assert [row["policy_id"] for row in by_position] == [7]
    out = run("call", "capture_sniffer_profile", "event=Running", "profile_name=lan-trace")[1]
    assert json.loads(out)["state"] == "Running"


def test_call_prints_what_the_module_logs(run: Any, tmp_path: Path) -> None:
    (tmp_path / "cli").mkdir()
    peers = "BFD\n\npeer 192.0.2.1\n"
    (tmp_path / "cli" / "get router info bfd neighbor.txt").write_text(peers)
    status, _, err = run(
        "call", "--scenario", str(tmp_path), "get_bfd_neighbor", "get router info bfd neighbor"
    )
    assert status == 0
    logged = "veldarin.modules.modules_util logged DEBUG: e:list index out of range"
    assert f"veldarin_simulator: {logged}\n" in err


def test_call_prints_only_the_modules_traceback(run: Any) -> None:
    status, out, err = run("call", "switch_acl_ingress_counter", "1", "2")
    assert (status, out) == (1, "")
    assert err.splitlines() == [
        "Traceback (most recent call last):",
        '  File "veldarin/modules/modules_util", line 94, in '
        "veldarin.modules.modules_util.switch_acl_ingress_counter",
        "TypeError: switch_acl_ingress_counter() takes at most 1 positional argument (2 given)",
    ]


def test_call_prints_the_error_of_function_or_reply(run: Any, state_directory: Path) -> None:
    status, out, err = run("call", "get_cli_command_output", "get nonsense")
    assert (status, out) == (1, "")
    assert err.splitlines()[-1].endswith("CFunctionError: get_cli_command_output's result is null.")
    state_directory.mkdir()
    (state_directory / "cookie-key").write_bytes(b"short")
    status, out, err = run("call", "encrypt_cookie", "x")
    assert (status, out) == (1, "")
    assert err.splitlines()[-1].startswith("ValueError: ")
    assert "cookie-key: expected 32 bytes, found 5; remove the file" in err


def test_call_accepts_options_between_arguments(run: Any, tmp_path: Path) -> None:
    (tmp_path / "build_switch_stp_state.json").write_text('[{"instance_id": 3}]')
    for texts in (
        ("--scenario", str(tmp_path), "list_switch_stp_state", "3"),
        ("list_switch_stp_state", "--scenario", str(tmp_path), "3"),
        ("list_switch_stp_state", "3", "--scenario", str(tmp_path)),
    ):
        status, out, _ = run("call", *texts)
        assert (status, json.loads(out)) == (0, [{"instance_id": 3}])


@pytest.mark.requires("cryptography")
def test_call_accepts_an_argument_with_a_dash(run: Any) -> None:
    wrapped = json.loads(run("call", "encrypt_cookie", "--", "--more")[1])
    assert json.loads(run("call", "decrypt_cookie", "--", wrapped)[1]) == "--more"


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
    """Write a captured text and return its path."""

    def write(content: bytes) -> str:
        path = tmp_path / "capture.txt"
        path.write_bytes(content)
        return str(path)

    return write


def test_parse_accepts_returns_prompts_and_nul(run: Any, capture: Any) -> None:
    status, out, err = run("parse", "arp", capture(ARP))
    assert (status, err) == (0, "")
    assert [(row["ipAddress"], row["interface"]) for row in json.loads(out)] == [
        ("192.0.2.10", "port1"),
        ("192.0.2.11", "port1 vlan10"),
    ]
    status, out, err = run("parse", "arp", capture(ARP + b"\0not a row\n"))
    assert (status, len(json.loads(out))) == (0, 2)
    assert f"the text ends at its first NUL byte, offset {len(ARP)}" in err
    status, out, err = run("parse", "routing", capture(ROUTING))
    assert (status, err) == (0, "")
    assert json.loads(out)["lastUpdate"] == "01:02:03"
    assert json.loads(out)["table"] == [{"main": "*", "ip": "198.51.100.1", "interface": "port1"}]


def test_parse_reads_standard_input(run: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(sys, "stdin", io.TextIOWrapper(io.BytesIO(ARP)))
    status, out, _ = run("parse", "arp", "-")
    assert status == 0
    assert len(json.loads(out)) == 2


def test_parse_bfd_reports_skipped_lines(run: Any, capture: Any) -> None:
    for _ in range(2):  # the first run leaves nothing behind
        status, out, err = run("parse", "bfd", str(ROOT / "tests/data/cli_output/bfd-peers.txt"))
        assert status == 0
        (session,) = json.loads(out).values()
        assert session["neighbor_ip"] == "198.51.100.77"
        assert err.count("skipped a line: e:argument of type 'type' is not iterable") == 3
    text = b"BFD\npeer 192.0.2.1 interface port1\n  Status: up\n"
    status, out, err = run("parse", "bfd", capture(text))
    assert list(json.loads(out)) == ["192.0.2.1_port1"]
    assert err == ""
    assert run("parse", "bfd", capture(b"nothing\n")) == (0, "{}\n", "")


REJECTED = {
    # kind, text, message
    "prompt": ("arp", ARP + b"device # \r\n", ":6: the parser rejects this line: 'device #'"),
    "first row": ("arp", b"Address\nx\ny\n", ":2: the parser rejects this line: 'x'"),
    "no table": ("arp", b"hello\n", ': no line begins with "Address"'),
    "nothing": ("arp", b"", ': no line begins with "Address"'),
    "hop": ("routing", ROUTING + b"% trailer", ":5: the parser rejects this line: '% trailer'"),
    "short header": ("routing", b"\nRouting entry\na\nb\n", ":2: the parser rejects the header"),
    "NUL": ("arp", b"hello\0\nAddress\n", ": the text ends at its first NUL byte, offset 5"),
    "not UTF-8": ("arp", b"Address\n1 2 3 4\n1 2 3 \xff\n", ":3: not UTF-8: byte 0xff"),
    "no entry": ("routing", b"% Network not in table\n", ': no line begins with "Routing"'),
}


@pytest.mark.parametrize(("kind", "text", "message"), REJECTED.values(), ids=REJECTED)
def test_parse_reports_the_failing_line(
    run: Any, capture: Any, kind: str, text: bytes, message: str
) -> None:
    path = capture(text)
    status, out, err = run("parse", kind, path)
    assert (status, out) == (1, "")
    lines = err.splitlines()
    assert lines[0].startswith(f"veldarin_simulator: {path}{message}")
    error = "IndexError: list index out of range"
    if b"\xff" in text:
        error = "UnicodeDecodeError: 'utf-8' codec can't decode"
    assert lines[-1].startswith(error)
    if b"\0" in text:  # the text behind it is ignored
        assert lines[1] == f'veldarin_simulator: {path}: no line begins with "Address"'
    assert len(lines) == 2 + text.count(b"\0")


def test_parse_finds_the_line_in_a_long_text(run: Any, capture: Any) -> None:
    rows = b"192.0.2.10 0 02:00:00:aa:bb:cc port1\n" * 20_000
    status, _, err = run("parse", "arp", capture(b"Address\n" + rows + b"end\n"))
    assert status == 1
    assert ":20002: the parser rejects this line: 'end'" in err


def test_usage_error_is_one_line_and_exits_2(run: Any, tmp_path: Path) -> None:
    (tmp_path / "build_switch_lg_state.json").write_text("{\n!\n")
    scenario = ("--scenario", str(tmp_path))
    cases = {
        (): "expected a tool: demo, list, call, parse, record, console, completion",
        ("dance",): "expected a tool: demo, list, call, parse, record, console, completion",
        ("demo", "now"): "unrecognized arguments: now",
        ("demo", "--scenario"): "expected one argument",
        ("demo", *scenario): "build_switch_lg_state.json:2:1: not JSON: ",
        ("call",): "expected a function",
        ("call", "list_switch_lg_stat"): "did you mean list_switch_lg_state?",
        ("call", "__init__"): "the module has no function __init__: see ",
        ("call", "json"): "the module has no function json: see ",
        ("call", "--loud", "get_token"): "unrecognized arguments: --loud",
        ("call", "get_token", "--scenario", "/no/such"): "/no/such: no such file or directory",
        ("call", "get_token", *scenario): "build_switch_lg_state.json:2:1: not JSON: ",
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
        assert err.startswith("veldarin_simulator: "), err
        assert message in err


@pytest.mark.parametrize(
    "tool", ["", "demo", "list", "call", "parse", "record", "console", "completion"]
)
def test_help_lists_exit_statuses(run: Any, tool: str) -> None:
    status, out, err = run(*filter(None, (tool, "--help")))
    assert (status, err) == (0, "")
    assert out.startswith(f"usage: python -m veldarin_simulator {tool}".rstrip())
    if tool:
        assert "exit status: 0 " in out
    if tool == "call":
        for function in FUNCTIONS:
            assert f"  {function.name}(" in out


def test_missing_build_is_one_line_and_exits_1(tmp_path: Path) -> None:
    done = run_process(*TOOL, "demo", env={**os.environ, "MODULES_UTIL_BUILD": str(tmp_path)})
    assert (done.returncode, done.stdout) == (1, "")
    problem = f"the simulator is not built in {tmp_path}: run `make build`"
    assert done.stderr == f"veldarin_simulator: {problem}\n"


def test_unusable_state_directory_is_reported(
    run: Any, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    (tmp_path / "file").write_text("")
    monkeypatch.setenv(state_dir.VARIABLE, str(tmp_path / "file" / "state"))
    status, out, err = run("call", "get_token")
    assert status == 0
    assert len(json.loads(out)) == 64
    assert err.startswith("veldarin_simulator: cannot store the preference secret: ")
