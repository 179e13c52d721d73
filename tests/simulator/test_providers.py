"""The replies of a simulator without scripted replies."""

from __future__ import annotations

import os
import signal
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest

from veldarin_simulator import Scenario, Simulator
from veldarin_simulator.providers import Providers, certificates
from veldarin_simulator.reply import Reply

LIVE = """
aps_get_new_cookie_id __get_aps_hash cookieval_wrap cookieval_unwrap gui_chk_cert_expiration
serial_number_ascii get_cli_cmd_output build_system_interface_physical
build_system_link_monitor_status build_system_flash_list build_switch_flapguard_status
build_switch_port_statistics build_switch_igmp_snooping_group
""".split()
RECORDED = """
build_switch_acl_ingress_stats build_switch_stp_state build_switch_lg_state build_switch_lldp_state
build_switch_trunk_state build_switch_modules_summary build_system_sniffer_profile_summary
build_start_sniffer_profile_capture build_stop_sniffer_profile_capture
build_pause_sniffer_profile_capture build_delete_sniffer_profile_capture
""".split()


def test_every_reply_has_its_source() -> None:
    replies = Providers(Scenario(), live=True).replies()
    sources = {**dict.fromkeys(LIVE, "live"), **dict.fromkeys(RECORDED, "recorded")}
    assert {name: reply.source for name, reply in replies.items()} == sources


def test_every_service_has_a_valid_reply(simulator: Simulator) -> None:
    for name, reply in Providers(Scenario(), live=True).replies().items():
        simulator.set_reply(name, reply)  # rejects an unknown name or a value of another form
    assert {name for name in simulator._library.forms if simulator.source(name) == "none"} == set()


def test_no_scenario_and_not_live_has_no_replies() -> None:
    assert Providers(Scenario(), live=False).replies() == {}


def test_unknown_command_has_no_output(run_command: Callable[[bytes], Reply]) -> None:
    for text in (b"", b" ", b"get system", b"get system arp now", b"GET SYSTEM ARP", b"\xff\xfe"):
        assert run_command(text) == Reply(None, "none")
    with Simulator(live=True) as simulator:
        error = simulator.module.CFunctionError
        with pytest.raises(error, match="result is null"):
            simulator.module.get_cli_command_output("get system nonsense")


@pytest.mark.requires("netlink")
def test_command_words_split_at_any_white_space(run_command: Callable[[bytes], Reply]) -> None:
    assert run_command(b" get\tsystem   arp\r\n").source == "live"


@pytest.mark.requires("netlink")
def test_module_parses_the_live_commands() -> None:
    with Simulator(live=True) as simulator:
        assert isinstance(simulator.module.get_system_arp_result(), list)
        assert simulator.source("get_cli_cmd_output") == "live"
        loopback = simulator.module.get_routing_table_result("127.0.0.1")
        for bad in ("", "no address", "300.1.1.1", None):
            with pytest.raises(IndexError):
                simulator.module.get_routing_table_result(bad)
    assert loopback["entry"] == "127.0.0.1/32"
    assert loopback["other"] == '  Known via "local",  best'


@contextmanager
def within(seconds: int) -> Iterator[None]:
    """Raise `RuntimeError` after a time; no check handles it as an unreadable file."""

    def late(*_: object) -> None:
        raise RuntimeError(f"not done within {seconds} s")

    before = signal.signal(signal.SIGALRM, late)
    signal.alarm(seconds)
    try:
        yield
    finally:
        signal.alarm(0)
        signal.signal(signal.SIGALRM, before)


def test_path_without_readable_file_is_unreadable(tmp_path: Path) -> None:
    pipe = tmp_path / "pipe"
    os.mkfifo(pipe)
    paths = (b"", b"/no/such/file", os.fsencode(tmp_path), os.fsencode(pipe), b"/dev/zero")
    with within(60):
        for path in (*paths, b"x" * 5000, b"a\0b"):
            assert certificates.check(path) is certificates.Status.UNREADABLE
