"""Recording a device, and replaying the recording: each recorded call gives an equal result."""

from __future__ import annotations

import argparse
import copy
import json
import os
import runpy
import shutil
import signal
import subprocess
import sys
from collections.abc import Callable, Iterator
from ipaddress import ip_address
from pathlib import Path
from threading import Thread
from typing import Any

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from tests.support.assertions import with_types
from tests.support.function_table import FUNCTIONS
from tests.support.netns import ROOT
from tests.support.query_cases import TABLE
from veldarin_simulator import RawJSON, Scenario, Simulator, native_library, record
from veldarin_simulator.__main__ import main
from veldarin_simulator.providers import bfd
from veldarin_simulator.record import Redactor

MODULE = "veldarin.modules.modules_util"
ARP = """\
Address     Age(min)  Hardware address   Interface
192.0.2.10  0         02:00:00:aa:bb:cc  port1
192.0.2.11  3         00-1B-21-AA-BB-CD  port1 vlan10
"""
ROUTE = """\
Routing entry for 192.0.2.0/24
  Known via static, distance 10, metric 0, best
  Last update 01:02:03 ago
  * 198.51.100.1, via port1
"""
SUMMARY = "BFD Peers:\npeer {} interface port1\npeer {} interface port2\n"
DETAIL = """\
BFD Peers:
peer {} interface {}
    Status: up
    Zebra notifications: {}
    Local timers
        Detect-multiplier: 3
        Receive interval: 300ms
        Transmission interval: 300ms
"""


class Device:
    """A scripted device: its counters change with each call."""

    def __init__(self) -> None:
        self.time = 0

    def statistics(self, request: Any) -> Any:
        self.time += 1
        names = ("port1", "a/b % port", "é", "port2.1")
        rows = [{"port_name": name, "n": self.time, "z": 0, "a": 0.1} for name in names]
        wanted = request.get("port_name")
        return [row for row in rows if wanted is None or row["port_name"] == wanted]

    def interface(self, request: Any) -> Any:
        self.time += 1
        entries = [{"name": name, "time": self.time} for name in ("port1", "port2")]
        return [{"interface": entries, "other": 1}]

    def run(self, command: bytes) -> str | None:
        self.time += 1
        words = command.decode().split()
        family = "6" if "info6" in words else ""
        if command == b"get system arp":
            return f"{ARP}192.0.2.12 {self.time} 02:00:00:00:00:01 port2\n"
        if words[-1] == "192.0.2.7":
            return ROUTE
        if words[-1] == "192.0.2.8":
            return "% Network not in table\r\n"
        if words[-1] == "neighbor":
            return SUMMARY.format(
                *(("2001:db8::2", "fe80::3") if family else ("10.0.0.2", "10.0.0.3"))
            )
        if words[-3:-2] == ["neighbor"] and (":" in words[-2]) == bool(family):
            return DETAIL.format(words[-2], words[-1], self.time)
        if words[-3:-2] == ["neighbor"]:
            return "BFD Peers:\n"
        return {"show pager": "a\r\n--More-- b\n", "show empty": ""}.get(" ".join(words))


NUMBERS = [
    *(0, -1, 2**63 - 1, -(2**63), 2**64 - 1, 2**64, 10**30),
    *(0.1, 1.0, -0.0, 1e22, 5e-324, 1.7976931348623157e308, 123456789.12345679),
]
REPLIES: dict[str, Any] = {
    "build_switch_modules_summary": [
        {"port_name": "é", "z": None, "a": NUMBERS, "serial": "XYZ-9981"}
    ],
    "build_switch_acl_ingress_stats": [{"policy_id": 7, "b": 1, "a": 2}, {"policy_id": "web"}],
    "build_switch_stp_state": lambda request: [
        {"instance_id": 3, "request": request["instance_id"]}
    ],
    "build_switch_lg_state": RawJSON(
        b' {"b":1, "a":[true,false,null,"\\u00e9\\n\\"\\\\"], "b":2} '
    ),
    "build_switch_flapguard_status": None,
    "build_switch_lldp_state": [],
    "build_switch_trunk_state": lambda request: [{"trunk_name": "t", "request": dict(request)}],
    "build_switch_igmp_snooping_group": {"port_name": "port1"},
    "build_system_flash_list": "text",
    "build_system_link_monitor_status": [{"name": "port1"}, {"name": "port9"}],
    "build_system_sniffer_profile_summary": [{"profile-name": "p", "state": "None"}],
    "build_start_sniffer_profile_capture": {"result": "started"},
    "serial_number_ascii": b"SERIAL0000123456",
    "__get_aps_hash": 4123456789,
    "gui_chk_cert_expiration": lambda path: 0 if path == b"/good.pem" else 7,
}


def open_device() -> Simulator:
    simulator = Simulator(live=False)
    device = Device()
    for service, reply in {
        **REPLIES,
        "build_switch_port_statistics": device.statistics,
        "build_system_interface_physical": device.interface,
        "get_cli_cmd_output": device.run,
    }.items():
        simulator.set_reply(service, reply)
    return simulator


class Spy:
    """The module, with a list of the calls and their outcomes."""

    def __init__(self, module: Any) -> None:
        self.__dict__["module"] = module
        self.__dict__["calls"] = []

    def __getattr__(self, name: str) -> Any:
        value = getattr(self.module, name)
        if name not in {function.name for function in FUNCTIONS}:
            return value

        def call(*arguments: Any) -> Any:
            entry: list[Any] = [name, copy.deepcopy(arguments), None]
            self.calls.append(entry)
            try:
                result = value(*arguments)
            except Exception as error:
                entry[2] = with_types(repr(error))
                raise
            entry[2] = with_types(copy.deepcopy(result))
            return result

        call.__dict__["function"] = value
        return call

    def __setattr__(self, name: str, value: Any) -> None:
        setattr(self.module, name, getattr(value, "function", value))


OPTIONS = [
    *("--address", "192.0.2.7", "--address", "192.0.2.8", "--command", "show  pager"),
    *("--command", "show empty", "--certificate", "/good.pem", "--certificate", "/bad.pem"),
]


def run_record(module: Any, folder: Path, *texts: str) -> int:
    return record.main(["--into", str(folder), *texts], module)


@pytest.fixture(autouse=True)
def build_is_loaded(build: None, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(bfd, "_vtysh", lambda command: None)


def replayed(folder: Path, calls: list[Any]) -> Iterator[tuple[str, Any, Any, Any]]:
    """Repeat calls on a recording alone: function, arguments, outcome before, outcome now."""
    with Simulator(Scenario.load(folder), live=False) as simulator:
        for name, arguments, before in calls:
            with record.own_bfd_sessions(simulator.module):
                try:
                    now = with_types(getattr(simulator.module, name)(*copy.deepcopy(arguments)))
                except Exception as error:
                    now = with_types(repr(error))
            yield name, arguments, before, now


def assert_replays(folder: Path, calls: list[Any], least: int) -> None:
    own = [call for call in calls if call[1] != ("",)]  # the recorder's own, without output
    for name, arguments, before, now in replayed(folder, own):
        assert now == before, (name, arguments)
    assert len(own) >= least


def test_queries_are_those_of_the_function_table() -> None:
    expected = {line.split()[0]: line.split()[1] for line in TABLE.strip().splitlines()}
    expected.pop("capture_sniffer_profile", None)
    assert {query.function: query.service or "-" for query in record.QUERIES} == expected
    keys = {function.name: function.parameters for function in FUNCTIONS}
    for query in record.QUERIES:
        if query.service:
            assert [parameter.name for parameter in keys[query.function]] == (
                [query.key] if query.key else []
            )


def test_recorded_calls_replay_equal(tmp_path: Path) -> None:
    folder = tmp_path / "recording"
    with open_device() as simulator:
        spy = Spy(simulator.module)
        assert run_record(spy, folder, *OPTIONS, "--capture", "p", "Running") == 1
        recorded = {name for name, _, _ in spy.calls}
    never = {
        *(
            "new_cookie_id",
            "aps_unsigned_int_hash",
            "encrypt_cookie",
            "decrypt_cookie",
            "get_token",
        ),
    }
    assert recorded == {function.name for function in FUNCTIONS} - never
    # The spy's outcomes of the commands are the device's own, before they are recorded.
    assert_replays(folder, spy.calls, 60)
    # The only failure is the address without a route.
    (failed,) = [line for line in (folder / "README.md").read_text().splitlines() if "    " in line]
    assert failed.strip() == (
        "get_routing_table_result('192.0.2.8'): IndexError: list index out of range"
    )
    assert main(["record", "--check", str(folder)]) == 0


def test_replay_reports_each_difference(tmp_path: Path, capsys: Any) -> None:
    folder = tmp_path / "recording"
    with open_device() as simulator:
        run_record(simulator.module, folder, "--quiet")
    capsys.readouterr()
    assert main(["record", "--check", str(folder)]) == 0
    calls = len((folder / record.CALLS).read_text().splitlines())
    assert capsys.readouterr().out == f"{folder}: {calls} calls, 0 different\n"
    path = folder / "build_switch_port_statistics port_name=port1.json"
    path.write_text(path.read_text().replace("0.1", "0.10000000000000002"))
    (folder / "cli" / "get system arp.txt").unlink()
    assert main(["record", "--check", str(folder)]) == 1
    assert capsys.readouterr().out == (
        "different: list_switch_port_statistics('port1')\n"
        "different: get_system_arp_result()\n"
        f"{folder}: {calls} calls, 2 different\n"
    )


@pytest.mark.parametrize(
    ("content", "message"),
    [
        (None, "no such file or directory"),
        ("{}\n", "is not a list of calls: 'function'"),
        ("7\n", "is not a list of calls: "),
        ("x\n", "is not a list of calls: "),
    ],
)
def test_check_without_calls_is_one_line(
    tmp_path: Path, capsys: Any, content: str | None, message: str
) -> None:
    if content is not None:
        (tmp_path / record.CALLS).write_text(content)
    assert main(["record", "--check", str(tmp_path)]) == 2
    out, err = capsys.readouterr()
    assert (out, err.count("\n")) == ("", 1)
    assert f"{record.CALLS}: {message}" in err


@pytest.mark.requires("cryptography", "netlink")
@pytest.mark.parametrize("redact", [[], ["--redact"]])
def test_live_machine_replays_equal(tmp_path: Path, redact: list[str], capsys: Any) -> None:
    folder = tmp_path / "recording"
    options = ["--address", "127.0.0.1", "--certificate", "/etc/ssl/certs/ca-certificates.crt"]
    with Simulator() as simulator:
        spy = Spy(simulator.module)
        assert run_record(spy, folder, *options, *redact) == 0
        mac = simulator.module.list_system_interface_physical(None)["mac"]
        serial = simulator.serial_number
    if not redact:
        assert_replays(folder, spy.calls, 40)
    assert main(["record", "--check", str(folder)]) == 0
    written = b"".join(path.read_bytes() for path in folder.rglob("*") if path.is_file())
    assert (serial in written) == (not redact)
    assert (mac.encode() in written) == (not redact or mac == "00:00:00:00:00:00")


def test_requests_have_files_with_readable_names(tmp_path: Path) -> None:
    folder = tmp_path / "recording"
    with open_device() as simulator:
        run_record(simulator.module, folder, *OPTIONS)
    names = {path.relative_to(folder).as_posix() for path in folder.rglob("*")}
    assert {
        "build_switch_port_statistics.json",
        "build_switch_port_statistics port_name=port1.json",
        "build_switch_port_statistics port_name=a%2Fb %25 port.json",
        "build_switch_port_statistics port_name=%C3%A9.json",
        "build_switch_acl_ingress_stats policy_id=7.json",
        "build_switch_acl_ingress_stats policy_id=web.json",
        "build_switch_stp_state instance_id=3.json",
        "build_switch_trunk_state trunk_name=t.json",
        "build_system_interface_physical name=port9.json",
        "gui_chk_cert_expiration text=%2Fgood.pem.json",
        "serial_number_ascii.json",
        "cli/get system arp.txt",
        "cli/show pager.txt",
        "cli/get router info6 bfd neighbor fe80::3 port2.txt",
    } <= names
    assert not any("sniffer_profile_capture" in name for name in names)
    reply = json.loads((folder / "build_switch_trunk_state trunk_name=t.json").read_text())
    assert reply == [{"trunk_name": "t", "request": {"trunk_name": "t"}}]


def test_options_select_what_is_called(tmp_path: Path) -> None:
    folder = tmp_path / "recording"
    given = ("--port", "x", "--policy", "9", "--policy", "p9", "--trunk", "u", "--instance", "4")
    with open_device() as simulator:
        run_record(simulator.module, folder, *given, "--interface", "eth0", "--port", "x")
        sent = {call.request for call in simulator.call_log if call.service.startswith("build_")}
    assert {
        *('{"port_name":"x"}', '{"policy_id":9}', '{"policy_id":"p9"}', '{"trunk_name":"u"}'),
        *('{"instance_id":4}', '{"name":"eth0"}'),
    } <= sent
    assert not {'{"port_name":"port1"}', '{"policy_id":7}', '{"name":"port1"}'} & sent


def test_recording_changes_nothing_on_the_device(tmp_path: Path) -> None:
    with open_device() as simulator:
        module = simulator.module
        run = module.get_cli_command_output
        simulator.set_reply("get_cli_cmd_output", DETAIL.format("10.9.9.9", "port9", 1))
        shared = module.get_bfd_neighbor("x")
        before = copy.deepcopy(shared)
        simulator.clear_calls()
        run_record(module, tmp_path / "recording", "--address", "192.0.2.7")
        services = {call.service for call in simulator.call_log}
        assert shared == before
        assert module.get_bfd_neighbor("") is shared
        assert module.get_cli_command_output is run
        assert not simulator.secret_path.exists()
        shared.clear()
    assert services.isdisjoint(
        {
            *("aps_get_new_cookie_id", "cookieval_wrap", "cookieval_unwrap"),
            *("gui_chk_cert_expiration", *record._CAPTURE_SERVICES.values()),
        }
    )
    assert [path.name for path in tmp_path.iterdir() if path.name != "state"] == ["recording"]


def test_other_threads_get_the_output_of_the_device(tmp_path: Path) -> None:
    folder = tmp_path / "recording"
    outputs: list[str] = []
    started: list[bool] = []
    with open_device() as simulator:
        module = simulator.module
        device = Device()

        def call(command: str) -> None:
            outputs.append(module.get_cli_command_output(command))

        def run(command: bytes) -> str | None:
            if command == b"get system arp" and not started:
                started.append(True)  # the other threads' commands come here, too
                for other in ("get system arp", "show 192.0.2.7"):
                    thread = Thread(target=call, args=(other,))
                    thread.start()
                    thread.join()
            return "192.0.2.10" if command.startswith(b"show") else device.run(command)

        simulator.set_reply("get_cli_cmd_output", run)
        assert run_record(module, folder, "--redact") == 0
    assert outputs[0].startswith(ARP)
    assert outputs[1:] == ["192.0.2.10"]
    assert not [path for path in folder.glob("cli/*") if "show" in path.name]


def test_capture_is_changed_only_on_request(tmp_path: Path, capsys: Any) -> None:
    with open_device() as simulator:
        run_record(simulator.module, tmp_path / "one", "--capture", "p/q", "Running")
        calls = [call for call in simulator.call_log if "capture" in call.service]
        assert [call.request for call in calls] == ['{"profile-name":"p/q"}']
    name = "build_start_sniffer_profile_capture profile-name=p%2Fq.json"
    assert json.loads((tmp_path / "one" / name).read_text()) == {"result": "started"}
    capsys.readouterr()
    with pytest.raises(SystemExit) as caught:
        record.main(["--into", str(tmp_path / "two"), "--capture", "p", "running"], object())
    assert caught.value.code == 2
    assert capsys.readouterr().err == (
        "record: expected the event Running, Stop, Pause, Delete, not running "
        f"(see {Path(sys.argv[0]).name} --help)\n"
    )
    assert not (tmp_path / "two").exists()


def test_failing_calls_are_listed_and_the_rest_recorded(tmp_path: Path, capsys: Any) -> None:
    folder = tmp_path / "recording"
    with open_device() as simulator:
        simulator.set_reply("build_switch_lg_state", RawJSON(b"{oops"))
        simulator.set_reply("build_switch_lldp_state", RawJSON(b"[NaN]"))
        simulator.set_reply("build_switch_trunk_state", RawJSON(b'"\\ud800"'))
        simulator.set_reply("build_system_interface_physical", [])
        outputs = {b"get system arp": b"Address\n\xff", b"show more": "--Mo--More--re--"}
        simulator.set_reply("get_cli_cmd_output", lambda command: outputs.get(command))
        status = run_record(simulator.module, folder, "--command", "show more", "--port", "x" * 240)
    assert status == 1
    err = capsys.readouterr().err
    failed = [line for line in err.splitlines() if line.startswith("record: failed: ")]
    for call, problem in {
        "list_switch_lg_state()": "JSONDecodeError: ",
        "list_switch_lldp_state(None)": "ValueError: Out of range float values",
        "list_switch_trunk_state(None)": "UnicodeEncodeError: ",
        "list_system_interface_physical(None)": "IndexError: ",
        "get_system_arp_result()": "UnicodeDecodeError: ",
        "get_bfd_neighbor('get router info bfd neighbor', {})": "CFunctionError: ",
        "get_cli_command_output('show more')": "ValueError: the output has a pager prompt",
        "list_switch_port_statistics": "cannot be recorded: file name too long",
    }.items():
        assert any(line.startswith(f"record: failed: {call}: {problem}") for line in failed), call
    assert f"{len(failed)} failed" in err
    assert main(["record", "--check", str(folder)]) == 0
    assert (folder / "build_system_flash_list.json").read_text() == '"text"'


def test_error_of_a_reply_belongs_to_its_call(tmp_path: Path) -> None:
    folder = tmp_path / "recording"
    parser = argparse.ArgumentParser()
    parser.add_argument("--into")
    record.add_options(parser)
    options = parser.parse_args(["--into", str(folder), "--command", "show", "--quiet"])
    lines: list[str] = []
    with open_device() as simulator:
        simulator.set_reply("get_cli_cmd_output", lambda _: 1 // 0)
        assert record.run(options, simulator.module, simulator.raise_errors, lines.append) == 1
        simulator.raise_errors()
    failed = [line for line in lines if line.startswith("failed: ")]
    assert [line for line in failed if "): ZeroDivisionError: " not in line] == []
    assert [line.split("(")[0] for line in failed] == [
        "failed: get_system_arp_result",
        *["failed: get_bfd_neighbor"] * 2,
        *["failed: get_cli_command_output"] * 2,
        "failed: get_cli_command_output",
    ]
    assert main(["record", "--check", str(folder)]) == 0


def test_progress_is_one_line_for_each_call(tmp_path: Path, capsys: Any) -> None:
    with open_device() as simulator:
        run_record(simulator.module, tmp_path / "one")
        out, err = capsys.readouterr()
        *calls, total = err.splitlines()
        assert out == ""
        assert [line.split()[1] for line in calls] == [str(n) for n in range(1, len(calls) + 1)]
        assert "list_switch_port_statistics('a/b % port')" in err
        assert total == f"record: {tmp_path / 'one'}: {len(calls)} calls, 0 failed"
        run_record(simulator.module, tmp_path / "two", "--quiet")
        assert capsys.readouterr().err.count("\n") == 1


def test_folder_with_files_is_kept(tmp_path: Path, capsys: Any) -> None:
    target = tmp_path / "recording"
    target.mkdir()
    (target / "mine").write_text("precious")
    with open_device() as simulator:
        assert run_record(simulator.module, target) == 1
        assert "has files already; --replace renames it first" in capsys.readouterr().err
        assert simulator.call_log == []
        assert [path.name for path in target.iterdir()] == ["mine"]
        (tmp_path / "recording.1").write_text("mine too")
        assert run_record(simulator.module, target, "--replace", "--quiet") == 0
    assert (tmp_path / "recording.2" / "mine").read_text() == "precious"
    assert (tmp_path / "recording.1").read_text() == "mine too"
    assert len(Scenario.load(target)) > 10
    assert f"the former folder is now {tmp_path / 'recording.2'}" in capsys.readouterr().err


def test_empty_folder_and_link_are_filled(tmp_path: Path) -> None:
    (tmp_path / "real").mkdir()
    (tmp_path / "link").symlink_to("real")
    with open_device() as simulator:
        assert run_record(simulator.module, tmp_path / "link") == 0
    assert (tmp_path / "link").is_symlink()
    assert len(Scenario.load(tmp_path / "real")) > 10


@pytest.mark.parametrize("replace", [[], ["--replace"]])
def test_target_that_cannot_be_written_is_one_line(
    tmp_path: Path, capsys: Any, replace: list[str]
) -> None:
    (tmp_path / "file").write_text("mine")
    cases = {
        tmp_path / "missing" / "recording": f"{tmp_path / 'missing'}: no such directory",
        tmp_path / "file": f"{tmp_path / 'file'}: not a directory",
        tmp_path / "file" / "recording": "not a directory",
        Path("/proc/recording"): "/proc/recording: no such file or directory",
    }
    with open_device() as simulator:
        for target, message in cases.items():
            assert run_record(simulator.module, target, *replace) == 1
            err = capsys.readouterr().err
            assert err.startswith("record: ")
            assert message in err
            assert err.count("\n") == 1
        assert simulator.call_log == []
    assert (tmp_path / "file").read_text() == "mine"


@pytest.mark.parametrize("when", ["reply", "command", "rename"])
@pytest.mark.parametrize("error", [OSError(28, "No space left on device"), KeyboardInterrupt()])
def test_aborted_recording_leaves_nothing(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch, when: str, error: BaseException
) -> None:
    target = tmp_path / "recording"
    target.mkdir()
    write = record.Recorder._write

    def failing(self: Any, name: str, parts: Any) -> None:
        if name.startswith("cli/" if when == "command" else "build_switch_lg"):
            raise error
        write(self, name, parts)

    def failing_move(*_: Any) -> None:
        raise error

    if when == "rename":
        monkeypatch.setattr(record, "_move", failing_move)
    else:
        monkeypatch.setattr(record.Recorder, "_write", failing)
    with open_device() as simulator:
        if isinstance(error, KeyboardInterrupt):
            with pytest.raises(KeyboardInterrupt):
                run_record(simulator.module, target)
        else:
            assert run_record(simulator.module, target) == 1
    assert [path for path in tmp_path.rglob("*") if path.name != "state"] == [target]


def test_failed_rename_brings_the_former_folder_back(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    target = tmp_path / "recording"
    target.mkdir()
    (target / "mine").write_text("precious")
    rename = Path.rename

    def failing(self: Path, other: Path) -> Path:
        if self.name.startswith("."):
            raise OSError(5, "Input/output error")
        return rename(self, other)

    monkeypatch.setattr(Path, "rename", failing)
    with open_device() as simulator:
        assert run_record(simulator.module, target, "--replace") == 1
    assert [path.name for path in tmp_path.iterdir() if path.name != "state"] == ["recording"]
    assert (target / "mine").read_text() == "precious"


# Runs the copied file as a device does: the native services are there, the simulator's package is
# not. Prints the largest resident memory before and after, in KiB.
DEVICE = """
import ctypes, json, runpy, sys
from pathlib import Path

def peak():
    # Not ru_maxrss, which includes the process that started this one.
    (line,) = [l for l in Path("/proc/self/status").read_text().splitlines() if "VmHWM" in l]
    return int(line.split()[1])

library, stage, script, *arguments = sys.argv[1:]
ctypes.CDLL(library, ctypes.RTLD_GLOBAL)
sys.path.insert(0, stage)
import veldarin.modules.modules_util
before = peak()
sys.argv[:] = [script, *arguments]
try:
    runpy.run_path(script, run_name="__main__")
except SystemExit as end:
    status = end.code
after = peak()
assert "veldarin_simulator" not in sys.modules
print(json.dumps([status, before, after]))
"""


def run_copy(tmp_path: Path, *texts: str) -> tuple[Any, str]:
    script = shutil.copy(record.__file__, tmp_path / "record.py")
    build = native_library.build_directory()
    done = subprocess.run(
        [
            *(sys.executable, "-W", "ignore", "-c", DEVICE, str(build / "libsimulator.so")),
            *(str(build / "stage"), str(script), *texts),
        ],
        cwd=tmp_path,
        env={name: value for name, value in os.environ.items() if name != "PYTHONPATH"},
        capture_output=True,
        text=True,
        timeout=300,
    )
    return (json.loads(done.stdout) if done.stdout else None), done.stderr


def test_copied_file_records_without_the_simulator(tmp_path: Path) -> None:
    folder = tmp_path / "recording"
    outcome, err = run_copy(tmp_path, "--into", str(folder), "--port", "port1")
    # All services return null, so that the commands fail.
    assert outcome[0] == 1
    assert "failed: get_system_arp_result(): CFunctionError: " in err
    scenario = Scenario.load(folder)
    assert scenario.services["build_switch_lg_state"] == {"": (None,)}
    assert scenario.services["build_switch_lldp_state"] == {"": (None,), "port_name=port1": (None,)}
    assert main(["record", "--check", str(folder)]) == 0


def test_copied_file_needs_the_standard_library_only() -> None:
    source = Path(record.__file__).read_text()
    imported = {
        line.split()[1].partition(".")[0]
        for line in source.splitlines()
        if line.startswith(("import ", "from "))
    }
    assert "veldarin_simulator" not in imported
    modules = (
        "__future__ argparse collections contextlib errno functools hashlib importlib itertools"
    )
    modules += " json os pathlib re shutil signal socket sys threading typing"
    assert imported <= {*modules.split()}


def test_copied_file_without_module_is_one_line(tmp_path: Path) -> None:
    script = shutil.copy(record.__file__, tmp_path / "record.py")
    done = subprocess.run(
        [sys.executable, "-W", "ignore", str(script), "--into", str(tmp_path / "x")],
        cwd=tmp_path,
        env={name: value for name, value in os.environ.items() if name != "PYTHONPATH"},
        capture_output=True,
        text=True,
        timeout=120,
    )
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.startswith("record: No module named 'veldarin")
    assert done.stderr.count("\n") == 1


@pytest.mark.workstation_only("the memory is the emulator's, with the code that it generates")
def test_copied_file_is_small_in_memory(tmp_path: Path) -> None:
    outcome, _ = run_copy(tmp_path, "--into", str(tmp_path / "recording"))
    _, before, after = outcome
    print(f"{before} KiB with the module, {after} KiB after the recording")
    assert after - before < 8 * 1024


MEMORY = """
import json, sys
from pathlib import Path
from veldarin_simulator import RawJSON, Simulator, record

row = "192.0.{}.{}  0  02:00:00:aa:bb:cc  port1\\n"
table = "Address Age(min) Hardware address Interface\\n" + "".join(
    row.format(high, low) for high in range(100) for low in range(256))
reply = json.dumps([{"port_name": "port1", "text": "x" * 1000, "n": n} for n in range(500)])

def peak():
    (line,) = [l for l in Path("/proc/self/status").read_text().splitlines() if "VmHWM" in l]
    return int(line.split()[1])

with Simulator(live=False) as simulator:
    # Fixed replies, because the call log would keep a copy of the others.
    simulator.set_fixed_reply("get_cli_cmd_output", table)
    simulator.set_fixed_reply("build_switch_port_statistics", RawJSON(reply))
    simulator.module.list_switch_port_statistics(None)
    simulator.module.get_system_arp_result()
    before = peak()
    ports = [text for number in range(100) for text in ("--port", f"port{number}")]
    record.main(["--into", sys.argv[1], "--quiet", *ports], simulator.module)
    size = sum(path.stat().st_size for path in Path(sys.argv[1]).rglob("*") if path.is_file())
    print(json.dumps([before, peak(), size]))
"""


def test_large_recording_stays_small_in_memory(tmp_path: Path) -> None:
    """The recording has more than 50 MB; the process needs less than 32 MB more than the calls."""
    done = subprocess.run(
        [sys.executable, "-W", "ignore", "-c", MEMORY, str(tmp_path / "recording")],
        env={**os.environ, "PYTHONPATH": str(ROOT)},
        capture_output=True,
        text=True,
        timeout=600,
    )
    before, after, size = json.loads(done.stdout)
    print(f"{size} bytes recorded, {before} KiB before, {after} KiB after")
    assert size > 50_000_000
    assert after - before < 32 * 1024


def run_process(*command: str) -> Any:
    return subprocess.run(command, cwd=ROOT, capture_output=True, text=True, timeout=300)


@pytest.mark.requires("cryptography", "netlink")
@pytest.mark.parametrize(
    "command", [["veldarin_simulator.record"], ["veldarin_simulator", "record"]], ids=" ".join
)
def test_tool_records_this_machine(tmp_path: Path, command: list[str]) -> None:
    folder = tmp_path / "recording"
    done = run_process(sys.executable, "-m", *command, "--into", str(folder), "--redact")
    assert (done.returncode, done.stdout) == (0, ""), done.stderr
    assert done.stderr.splitlines()[-1].endswith(" calls, 0 failed")
    done = run_process(sys.executable, "-m", *command, "--check", str(folder))
    assert (done.returncode, done.stderr) == (0, "")


def test_terminated_recording_leaves_nothing(tmp_path: Path) -> None:
    source = (
        "import sys, time\nfrom veldarin_simulator import Simulator, record\n"
        "def record_slowly(self, options):\n"
        "    print('recording', flush=True)\n"
        "    while True:\n"
        "        time.sleep(0.1)  # the emulator does not interrupt a long one\n"
        "record.Recorder.record = record_slowly\n"
        "from veldarin_simulator.cli import common, record as tool\n"
        "common.open_simulator = lambda scenario: Simulator(live=False)\n"
        "tool.main(['--into', sys.argv[1]])\n"
    )
    process = subprocess.Popen(
        [sys.executable, "-W", "ignore", "-c", source, str(tmp_path / "recording")],
        env={**os.environ, "PYTHONPATH": str(ROOT)},
        stdout=subprocess.PIPE,
        text=True,
    )
    assert process.stdout is not None
    assert process.stdout.readline() == "recording\n"
    assert len([path for path in tmp_path.iterdir() if path.name != "state"]) == 1
    process.send_signal(signal.SIGTERM)
    process.communicate(timeout=60)
    assert process.returncode == 143
    assert [path for path in tmp_path.iterdir() if path.name != "state"] == []


def test_file_runs_as_a_script(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(sys, "argv", ["record.py", "--help"])
    handler = signal.getsignal(signal.SIGTERM)
    try:
        with pytest.raises(SystemExit) as caught:
            runpy.run_path(record.__file__, run_name="__main__")
    finally:
        signal.signal(signal.SIGTERM, handler)
    assert caught.value.code == 0


# Redaction

KEY = bytes(range(32))
octets = st.integers(0, 255)
ipv4 = st.binary(min_size=4, max_size=4)
ipv6 = st.binary(min_size=16, max_size=16)
macs = st.binary(min_size=6, max_size=6)


def text_of(packed: bytes) -> str:
    return packed.hex(":") if len(packed) == 6 else str(ip_address(packed))


@settings(max_examples=60, deadline=None)  # an order of 256 octets is slow to make
@given(packed=st.one_of(ipv4, ipv6, macs), other=st.one_of(ipv4, ipv6, macs))
def test_redacted_address_is_valid_distinct_and_restorable(packed: bytes, other: bytes) -> None:
    redactor = Redactor(KEY)
    text = text_of(packed)
    image = redactor.text(text)
    assert image == redactor.text(text) == Redactor(KEY).text(text)
    assert redactor.restore(image) == text
    if len(packed) == 6:
        assert len(bytes.fromhex(image.replace(":", ""))) == 6
        assert bytes.fromhex(image[:2])[0] % 2 == packed[0] % 2
    else:
        assert ip_address(image).version == ip_address(packed).version
        assert ip_address(image).is_multicast == ip_address(packed).is_multicast
        assert ip_address(image).is_loopback == ip_address(packed).is_loopback
    if len(other) == len(packed) and other != packed:
        assert redactor.text(text_of(other)) != image


@settings(max_examples=60, deadline=None)
@given(prefix=st.binary(min_size=1, max_size=3), one=ipv4, other=ipv4)
def test_redacted_addresses_share_their_leading_octets(
    prefix: bytes, one: bytes, other: bytes
) -> None:
    redactor = Redactor(KEY)
    images = [redactor.text(text_of(prefix + rest[len(prefix) :])) for rest in (one, other)]
    first, second = (ip_address(image).packed for image in images)
    assert first[: len(prefix)] == second[: len(prefix)]


FIXED = [
    *("0.0.0.0", "127.0.0.1", "255.255.255.255", "255.255.255.0", "255.255.240.0", "0.0.0.255"),
    *("224.0.0.251", "::", "::1", "ff02::fb", "00:00:00:00:00:00", "ff:ff:ff:ff:ff:ff"),
    *("01:80:c2:00:00:0e", "FF-FF-FF-FF-FF-FF", "01:02:03", "1.3.6.1.4.1.9", "1.2.3", "300.1.2.3"),
    *("12:34:56.789", "std::move", "", "Age: 0", "0123456789012", "123456789012"),
]


@pytest.mark.parametrize("text", FIXED)
def test_text_without_identity_is_kept(text: str) -> None:
    assert Redactor(KEY).text(f"a {text} b") == f"a {text} b"


@pytest.mark.parametrize(
    "text",
    [
        "{4}",
        "{4}/24",
        "({4})",
        "{4}:443",
        "{4}.",
        "via{4}",
        "...{4}",
        "{4}_port1",
        "12:34:{4}",
        "{6}",
        "{6}/64",
        "[{6}]:443",
        "{6}%port1",
        "peer:{6}",
        "interface:{6}",
        "::ffff:{4}",
        "{m}",
        "vlan 10:{m}",
        "8000.{m}",
        "mac={m},",
        "interface:{m}",
        "{M}",
        "{d}",
        "{c}",
        "1000.{h}",
        "{h}",
        "{4} {6} {m} {4}",
    ],
)
def test_address_is_found_wherever_it_stands(text: str) -> None:
    redactor = Redactor(KEY)
    mac = "020d1cabcdef"
    parts = {
        "4": "192.0.2.10",
        "6": "2001:db8::2:a",
        "m": ":".join(mac[i : i + 2] for i in range(0, 12, 2)),
        "M": "02:0D:1C:AB:CD:EF",
        "d": "02-0d-1c-ab-cd-ef",
        "c": "020d.1cab.cdef",
        "h": mac,
    }
    images = {name: redactor.text(part) for name, part in parts.items()}
    digits = {re_digits(images[name]) for name in "mdch"}
    assert len(digits) == 1
    assert re_digits(images["M"]) == digits.pop()
    assert images["M"] == images["M"].upper()
    assert redactor.text(fill(text, parts)) == fill(text, images)


def fill(text: str, parts: dict[str, str]) -> str:
    for name, part in parts.items():
        text = text.replace(f"{{{name}}}", part)
    return text


def re_digits(mac: str) -> str:
    return "".join(char for char in mac.lower() if char.isalnum())


def test_network_of_whole_octets_stays_a_network() -> None:
    redactor = Redactor(KEY)
    network, host = redactor.text("192.0.2.0/24 192.0.2.77").split()
    assert network.endswith(".0/24")
    assert host.rpartition(".")[0] == network.rpartition(".")[0]
    network, host = redactor.text("2001:db8:12::/48 2001:db8:12:3::7").split()
    assert network.endswith("::/48")
    assert host.split(":")[:3] == network.split(":")[:3]


def test_serial_numbers_are_found_by_key_and_line() -> None:
    redactor = Redactor(KEY)
    redactor.add_serial_number("SN-12ab")
    row = {"vendor_serial": "ABC123", "sn": "QQ778", "name": "ABC123", "MAC": "x", "n": 123}
    image = redactor.value([row, {"ABC123": "SN-12ab/QQ778"}])
    first, second = image
    assert first["vendor_serial"] == first["name"] != "ABC123"
    assert (len(first["name"]), first["name"][:3].isupper(), first["name"][3:].isdigit()) == (
        *(6, True, True),
    )
    assert second == {first["name"]: f"{redactor.text('SN-12ab')}/{first['sn']}"}
    assert (first["n"], first["MAC"], list(first)) == (123, "x", list(row))
    output = "Serial-Number: FG9001x\nserial no. = zz-44-q\nmodel FG9001x"
    shown = redactor.text(output).split()
    assert shown[1] == shown[-1] != "FG9001x"
    assert "zz-44-q" not in shown
    assert redactor.restore(" ".join(shown)).split() == output.split()


def test_keys_differ_from_run_to_run() -> None:
    images = {Redactor().text("192.0.2.10 2001:db8::2 02:00:00:aa:bb:cc") for _ in range(5)}
    assert len(images) == 5


def test_redacted_recording_replays_and_leaks_nothing(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    # With a random key, a replacement may contain one of the texts by chance.
    monkeypatch.setattr(record, "Redactor", lambda: Redactor(KEY))
    folder = tmp_path / "recording"
    secrets = [
        *(b"192.0.2.1", b"198.51.100.", b"10.0.0.", b"2001:db8", b"fe80::3", b"02:00:00:aa"),
        *(b"1B-21", b"SERIAL0000123456", b"XYZ-9981", b"4123456789"),
    ]
    with open_device() as simulator:
        assert run_record(simulator.module, folder, *OPTIONS, "--redact") == 1
        commands = {call.text for call in simulator.call_log if call.text}
        assert b"get router info bfd neighbor 10.0.0.3 port2" in commands
        assert b"get router info6 bfd neighbor 2001:db8::2 port1" in commands
        assert b"get router info routing-table detail 192.0.2.7" in commands
    for path in folder.rglob("*"):
        content = path.read_bytes() if path.is_file() else b""
        for secret in secrets:
            assert secret not in os.fsencode(path.relative_to(folder)), secret
            assert secret not in content, (path, secret)
    assert main(["record", "--check", str(folder)]) == 0
    with Simulator(Scenario.load(folder), live=False) as simulator:
        table = simulator.module.get_system_arp_result()
        addresses = [row["ipAddress"] for row in table]
        assert len({address.rpartition(".")[0] for address in addresses}) == 1
        assert len({*addresses}) == 3
        assert simulator.module.get_cookie_name(True).startswith("APSCOOKIE_")
        (entry,) = [
            path.name
            for path in folder.glob("cli/*detail*")
            if path.name.startswith("get router")
            and ROUTE.count("\n") == path.read_text().count("\n")
        ]
        route = simulator.module.get_routing_table_result(entry.split()[-1][: -len(".txt")])
        assert route["entry"].endswith(".0/24")


def test_process_gets_its_arguments_by_default(
    monkeypatch: pytest.MonkeyPatch, tmp_path: Path
) -> None:
    monkeypatch.setattr(sys, "argv", ["record.py", "--into", str(tmp_path / "recording")])
    calls: list[Callable[[], object]] = []
    with open_device() as simulator:
        simulator.module  # noqa: B018
        assert record.main() == 0
    assert calls == []
    assert (tmp_path / "recording" / "README.md").read_text().startswith("Recorded by record.py: ")


def test_address_that_would_become_a_constant_is_replaced_again() -> None:
    redactor = Redactor(KEY)
    parity = bytes(range(0, 256, 2))
    pools = [parity, *[bytes(range(256))] * 5]
    before_zero = redactor._permute(b"mac", bytes(6), pools, inverse=True)
    image = redactor.text(text_of(before_zero))
    assert image != "00:00:00:00:00:00"
    assert image == text_of(redactor._permute(b"mac", bytes(6), pools, inverse=False))
    assert redactor.restore(image) == text_of(before_zero)
