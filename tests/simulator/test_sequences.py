"""Replies that change from call to call, failures, delays, and replies to single requests."""

from __future__ import annotations

import os
import threading
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

from veldarin_simulator import RawJSON, Reply, Scenario, ScenarioError, Simulator

LG_STATE = "build_switch_lg_state"
STATISTICS = "build_switch_port_statistics"
STP = "build_switch_stp_state"
SUMMARY = "build_system_sniffer_profile_summary"
CLI = "get_cli_cmd_output"
ARP = "get system arp"


def open_with(files: dict[str, bytes], **settings: Any) -> Simulator:
    return Simulator(Scenario(files), **{"live": False, **settings})


def test_set_replies_returns_each_and_stays_at_the_last(simulator: Simulator) -> None:
    replies: list[Any] = [1, None, RawJSON(b"[2.50]"), lambda request: [request]]
    simulator.set_replies(LG_STATE, replies)
    results = [simulator.module.list_switch_lg_state() for _ in range(5)]
    expected: list[Any] = [1, None, [2.5], [{}], [{}]]
    assert results == expected
    simulator.set_replies(LG_STATE, iter([3]))
    assert [simulator.module.list_switch_lg_state() for _ in range(2)] == [3, 3]


def test_set_replies_counts_each_service_alone(simulator: Simulator) -> None:
    simulator.set_replies(LG_STATE, ["one", "two"])
    simulator.set_replies(CLI, ["a", None, b"c"])
    module = simulator.module
    assert module.list_switch_lg_state() == "one"
    assert module.get_cli_command_output("x") == "a"
    with pytest.raises(module.CFunctionError):
        module.get_cli_command_output("x")
    assert module.get_cli_command_output("y") == "c"
    assert module.list_switch_lg_state() == "two"


def test_set_replies_reports_the_source_of_each(simulator: Simulator) -> None:
    simulator.set_replies(LG_STATE, [Reply(1, "live"), lambda _: Reply(2, "recorded"), 3])
    for _ in range(3):
        simulator.module.list_switch_lg_state()
    sources = [call.source for call in simulator.call_log if call.service == LG_STATE]
    assert sources == ["live", "recorded", "scripted"]


@pytest.mark.parametrize(
    ("service", "replies", "error"),
    [
        (LG_STATE, [], ValueError),
        (LG_STATE, [1, object()], TypeError),
        ("aps_get_new_cookie_id", [1, -1], ValueError),
        ("build_switch_lg", [1], ValueError),
        ("serial_number_ascii", [b"a", b"b"], ValueError),
    ],
)
def test_set_replies_rejected_keeps_the_reply(
    simulator: Simulator, service: str, replies: list[Any], error: type[Exception]
) -> None:
    simulator.set_reply(LG_STATE, "before")
    with pytest.raises(error):
        simulator.set_replies(service, replies)
    assert simulator.module.list_switch_lg_state() == "before"


def test_fail_returns_null_or_a_status(simulator: Simulator) -> None:
    module = simulator.module
    for service in (LG_STATE, CLI, "cookieval_unwrap", "gui_chk_cert_expiration"):
        simulator.fail(service)
    assert module.list_switch_lg_state() is None
    with pytest.raises(module.CFunctionError):
        module.get_cli_command_output(ARP)
    assert module.decrypt_cookie(b"sealed") == b"sealed"
    assert module.check_cert_expiration(b"/x") is False
    simulator.set_reply(LG_STATE, 1)
    assert module.list_switch_lg_state() == 1


@pytest.mark.parametrize("service", ["aps_get_new_cookie_id", "__get_aps_hash", "cookieval_wrap"])
def test_fail_of_a_service_that_succeeds_raises(simulator: Simulator, service: str) -> None:
    with pytest.raises(ValueError, match=f"{service} cannot fail"):
        simulator.fail(service)
    with pytest.raises(ValueError, match=r"did you mean build_switch_lldp_state\?"):
        simulator.fail("lldp")


LONG = 30.0  # seconds: a call without delay takes less on any machine


def elapsed(call: Callable[[], object]) -> float:
    begin = time.monotonic()
    call()
    return time.monotonic() - begin


@pytest.mark.parametrize("fixed", [False, True])
def test_delay_applies_until_it_is_reset(simulator: Simulator, fixed: bool) -> None:
    module = simulator.module
    (simulator.set_fixed_reply if fixed else simulator.set_reply)(LG_STATE, [1])
    simulator.delay(LG_STATE, 0.2)
    assert elapsed(module.list_switch_lg_state) >= 0.2
    (simulator.set_fixed_reply if fixed else simulator.set_reply)(LG_STATE, [2])
    assert elapsed(module.list_switch_lg_state) >= 0.2
    simulator.delay(LG_STATE, LONG)
    assert elapsed(module.list_switch_flapguard_status) < LONG
    simulator.delay(LG_STATE, 0)
    assert elapsed(module.list_switch_lg_state) < LONG
    simulator.delay(LG_STATE, LONG)
    simulator.reset_reply(LG_STATE)
    assert elapsed(module.list_switch_lg_state) < LONG


def test_delay_ends_with_the_simulator(build: None) -> None:
    with Simulator(live=False) as simulator:
        simulator.delay(LG_STATE, LONG)
    with Simulator(live=False) as simulator:
        assert elapsed(simulator.module.list_switch_lg_state) < LONG


def test_delay_holds_the_interpreter_lock(simulator: Simulator) -> None:
    """Another thread, which would otherwise run all the time, does not run during the delay."""
    times: list[float] = []
    stop = threading.Event()

    def tick() -> None:
        while not stop.is_set():
            times.append(time.monotonic())

    simulator.delay(LG_STATE, 0.3)
    thread = threading.Thread(target=tick)
    thread.start()
    while not times:
        time.sleep(0.001)
    simulator.module.list_switch_lg_state()
    end = len(times)
    while len(times) == end:
        time.sleep(0.001)
    stop.set()
    thread.join()
    assert max(later - before for before, later in zip(times, times[1:])) >= 0.3


@pytest.mark.parametrize("seconds", [-1, float("nan"), float("inf"), 86401])
def test_delay_out_of_range_raises(simulator: Simulator, seconds: float) -> None:
    with pytest.raises(ValueError, match="expected a delay of 0 to 86400 seconds"):
        simulator.delay(LG_STATE, seconds)
    with pytest.raises(TypeError):
        simulator.delay(LG_STATE, "1")  # type: ignore[arg-type]
    with pytest.raises(ValueError, match="unknown native service"):
        simulator.delay("serial_number_ascii", 1)


LINK = {f"{LG_STATE}.{step}.json": f'"{step}"'.encode() for step in (1, 2, 10, 3, 4, 5, 6, 7, 8, 9)}


def test_numbered_files_reply_in_turn(build: None) -> None:
    with open_with(LINK) as simulator:
        results = [simulator.module.list_switch_lg_state() for _ in range(11)]
        assert results == ["1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "10"]
        assert simulator.source(LG_STATE) == "recorded"
        simulator.reset_reply(LG_STATE)
        assert simulator.module.list_switch_lg_state() == "1"
    with open_with(LINK) as simulator:
        assert simulator.module.list_switch_lg_state() == "1"


def test_looking_at_a_sequence_does_not_advance_it(build: None) -> None:
    with open_with({**LINK, f"cli/{ARP}.1.txt": b"1", f"cli/{ARP}.2.txt": b"2"}) as simulator:
        for service, argument in ((LG_STATE, {}), (CLI, ARP.encode())):
            provided = simulator.provided_reply(service)
            assert provided is not None
            assert callable(provided.reply)
            provided.reply(argument)
        assert simulator.module.list_switch_lg_state() == "1"
        assert simulator.module.get_cli_command_output(ARP) == "1"


def test_use_scenario_restarts_only_changed_sequences(build: None) -> None:
    with open_with({**LINK, f"{STP}.1.json": b"1", f"{STP}.2.json": b"2"}) as simulator:
        module = simulator.module
        assert (module.list_switch_lg_state(), module.list_switch_stp_state(0)) == ("1", 1)
        simulator.use_scenario(simulator.scenario.with_reply(f"{STP}.2.json", b"22"))
        assert (module.list_switch_lg_state(), module.list_switch_stp_state(0)) == ("2", 1)
        assert module.list_switch_stp_state(0) == 22


def test_numbered_outputs_reply_in_turn(build: None) -> None:
    detail = "get router info routing-table detail"
    files = {
        f"cli/{ARP}.1.txt": b"up",
        f"cli/{ARP}.2.txt": b"down",
        f"cli/{detail} {{}}.1.txt": b"any 1",
        f"cli/{detail} {{}}.2.txt": b"any 2",
        f"cli/{detail} 192.0.2.1.txt": b"exact",
        "cli/show port.2.txt": b"not a sequence",
    }
    with open_with(files) as simulator:
        run = simulator.module.get_cli_command_output
        assert [run(ARP), run(f" {ARP}  "), run(ARP)] == ["up", "down", "down"]
        assert [run(f"{detail} {address}") for address in ("a", "b", "a", "a")] == [
            *("any 1", "any 1", "any 2", "any 2")
        ]
        assert [run(f"{detail} 192.0.2.1") for _ in range(2)] == ["exact", "exact"]
        assert run("show port.2") == "not a sequence"
        with pytest.raises(simulator.module.CFunctionError):
            run("show port")
        simulator.reset_reply(CLI)
        assert run(ARP) == "up"


def test_command_with_own_output_ignores_steps(build: None) -> None:
    files = {"cli/show port1.txt": b"port", "cli/show port1.1.txt": b"VLAN 1"}
    with open_with(files) as simulator:
        run = simulator.module.get_cli_command_output
        assert [run("show port1"), run("show port1"), run("show port1.1")] == [
            *("port", "port", "VLAN 1")
        ]


@pytest.mark.parametrize(
    ("names", "message"),
    [
        (["X.2.json"], r"X\.1\.json: no such file: X\.2\.json needs all steps before it"),
        (["X.1.json", "X.3.json"], r"X\.2\.json: no such file: X\.3\.json needs"),
        (["X.json", "X.1.json"], r"X\.1\.json: is a step of a sequence, and X\.json is its only"),
        (["X.2 a=b.json"], r"X\.1 a=b\.json: no such file"),
        (["X.0.json"], "no service has this name"),
        (["X.1.2.json"], "no service has this name"),
        (["X a.json"], "no service has this name"),
        (["serial_number_ascii.1.json"], "the serial number is in serial_number_ascii.json"),
        (["serial_number_ascii text=a.json"], "the serial number is in serial_number_ascii.json"),
    ],
)
def test_damaged_sequence_names_the_file(names: list[str], message: str) -> None:
    with pytest.raises(ScenarioError, match=message.replace("X", LG_STATE)) as caught:
        Scenario({name.replace("X", LG_STATE): b"1" for name in names})
    assert "\n" not in str(caught.value)


REQUESTS = {
    f"{STATISTICS}.json": b'[{"port_name": "port1", "n": 0}, {"port_name": "port3", "n": 3}]',
    f"{STATISTICS} port_name=port1.json": b'[{"n": 1}]',
    f"{STATISTICS}.1 port_name=port2.100.json": b'"first"',
    f"{STATISTICS}.2 port_name=port2.100.json": b'"second"',
    f"{STATISTICS} port_name=a%2Fb.json": b'"slash"',
    f"{STP} instance_id=1.json": b"1",
    f"{STP} instance_id=null.json": b'"null"',
    f"{STP} instance_id=true.json": b'"true"',
    "gui_chk_cert_expiration text=%2Fetc%2Fgood.pem.json": b"0",
    "gui_chk_cert_expiration.json": b"1",
    "__get_aps_hash text=a.json": b"7",
}


def test_file_for_a_request_precedes_the_service(build: None) -> None:
    with open_with(REQUESTS) as simulator:
        module = simulator.module
        statistics = module.list_switch_port_statistics
        assert statistics("port1") == [{"n": 1}]
        assert len(statistics(None)) == 2
        assert statistics("port3") == [{"port_name": "port3", "n": 3}]
        assert [statistics("port2.100") for _ in range(3)] == ["first", "second", "second"]
        assert statistics("a/b") == "slash"
        stp = [module.list_switch_stp_state(value) for value in (1, "1", None, True, 2)]
        assert stp == [1, 1, "null", "true", None]
        assert module.check_cert_expiration(b"/etc/good.pem") is True
        assert module.check_cert_expiration(b"/etc/bad.pem") is False
        assert [module.aps_unsigned_int_hash(text) for text in (b"a", b"b")] == [7, 0]


def test_request_without_file_falls_back_to_the_machine(build: None) -> None:
    with open_with(REQUESTS, live=True) as simulator:
        module = simulator.module
        assert module.list_switch_stp_state(1) == 1
        assert simulator.source(STP) == "recorded"
        assert module.list_switch_stp_state(0)[0]["instance_id"] == 0
        module.aps_unsigned_int_hash(b"b")
        assert simulator.source("__get_aps_hash") == "live"


def test_sequence_of_profiles_replaces_the_captures(build: None) -> None:
    files = {f"{SUMMARY}.{step}.json": f"[{step}]".encode() for step in (1, 2)}
    with open_with(files) as simulator:
        module = simulator.module
        assert module.get_system_sniffer_profile_summary() == [1]
        assert module.capture_sniffer_profile("p", "Running") is None
        assert module.get_system_sniffer_profile_summary() == [2]


def test_reply_to_a_capture_request_overrides_the_state(build: None) -> None:
    files = {
        f"{SUMMARY}.json": b'[{"profile-name": "p", "state": "None"}]',
        "build_start_sniffer_profile_capture profile-name=q.json": b'"refused"',
    }
    with open_with(files) as simulator:
        module = simulator.module
        assert module.capture_sniffer_profile("q", "Running") == "refused"
        assert module.capture_sniffer_profile("p", "Running")["state"] == "Running"


def test_link_that_leads_out_is_rejected(tmp_path: Path) -> None:
    outside = tmp_path / "outside.json"
    outside.write_text("1")
    folder = tmp_path / "scenario"
    (folder / "cli").mkdir(parents=True)
    (folder / f"{STP}.json").write_text("2")
    link = folder / f"{LG_STATE}.json"
    link.symlink_to(f"{STP}.json")
    assert Scenario.load(folder).services[LG_STATE] == {"": (2,)}
    (tmp_path / "alias").symlink_to(folder)
    assert len(Scenario.load(tmp_path / "alias")) == 2
    for target in (outside, Path("../outside.json"), Path("/no/such/file")):
        link.unlink()
        link.symlink_to(target)
        with pytest.raises(ScenarioError, match="the link leads out of the scenario") as caught:
            Scenario.load(folder)
        assert str(caught.value).startswith(str(link))
    link.unlink()
    (folder / "cli").rmdir()
    (tmp_path / "commands").mkdir()
    (tmp_path / "commands" / "x.txt").write_text("")
    (folder / "cli").symlink_to(tmp_path / "commands")
    with pytest.raises(ScenarioError, match="the link leads out of the scenario"):
        Scenario.load(folder)


def test_link_without_target_and_pipe_are_rejected(tmp_path: Path) -> None:
    path = tmp_path / f"{LG_STATE}.json"
    cases: list[tuple[Callable[[], None], str]] = [
        (lambda: path.symlink_to("missing.json"), "no such file or directory"),
        (lambda: path.symlink_to(path.name), "too many levels of symbolic links"),
        (lambda: os.mkfifo(path), "is not a regular file"),
    ]
    for create, message in cases:
        create()
        with pytest.raises(ScenarioError, match=f"^{path}: {message}$"):
            Scenario.load(tmp_path)
        path.unlink()


@pytest.mark.parametrize(
    ("text", "location"),
    [
        (b'{\n  "a": "\xc3\xa9\xff"\n}', "2:10: not UTF-8"),
        ('{"é": 1 2}'.encode(), "1:9: not JSON: Expecting ',' delimiter"),
        (b'["NaN",\n "\\"NaN",  -Infinity]', "2:12: -Infinity is not valid JSON"),
        (b"[1.5,\n 1e999]", "2:2: 1e999 is greater than every float"),
        (b'["\\ud83d\\ude00", "\\\\ud800",\n "\\uDC00"]', "2:3: lone surrogates are not allowed"),
        (b"", "1:1: not JSON: Expecting value"),
    ],
)
def test_damaged_reply_names_line_and_column(text: bytes, location: str) -> None:
    with pytest.raises(ScenarioError) as caught:
        Scenario({f"{LG_STATE}.json": text})
    assert str(caught.value) == f"{LG_STATE}.json:{location}"


def test_file_name_with_a_line_break_is_one_line() -> None:
    with pytest.raises(ScenarioError, match=r"a\\nb\.json: no service has this name") as caught:
        Scenario({"a\nb.json": b""})
    assert "\n" not in str(caught.value)


@pytest.mark.parametrize(
    "value",
    [2**63 - 1, 2**64 - 1, 2**64, -(2**63) - 1, 10**40, 1e-7, 1.0, 123456789.12345679, [-0.0]],
)
def test_number_reaches_the_caller_unchanged(build: None, value: Any) -> None:
    with open_with(
        {f"{LG_STATE}.json": repr([value, {"k": value}]).replace("'", '"').encode()}
    ) as s:
        result = s.module.list_switch_lg_state()
        assert repr(result) == repr([value, {"k": value}])
