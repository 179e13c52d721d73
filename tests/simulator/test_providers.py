"""TODO"""

from __future__ import annotations

from typing import Any

import pytest

from veldarin_simulator import Scenario, Simulator
from veldarin_simulator.providers import (
    Providers,
)
from veldarin_simulator.reply import Reply

LIVE = {
    "aps_get_new_cookie_id",
    "__get_aps_hash",
    "cookieval_wrap",
    "cookieval_unwrap",
    "gui_chk_cert_expiration",
    "serial_number_ascii",
    "get_cli_cmd_output",
    "build_system_interface_physical",
    "build_system_link_monitor_status",
    "build_system_flash_list",
    "build_switch_flapguard_status",
    "build_switch_port_statistics",
    "build_switch_igmp_snooping_group",
}


RECORDED = {
    "build_switch_acl_ingress_stats",
    "build_switch_stp_state",
    "build_switch_lg_state",
    "build_switch_lldp_state",
    "build_switch_trunk_state",
    "build_switch_modules_summary",
    "build_system_sniffer_profile_summary",
    "build_start_sniffer_profile_capture",
    "build_stop_sniffer_profile_capture",
    "build_pause_sniffer_profile_capture",
    "build_delete_sniffer_profile_capture",
}


def test_every_reply_has_its_source() -> None:
    answers = Providers(Scenario(), live=True).replies()
    assert {name for name, answer in answers.items() if answer.source == "live"} == LIVE
    assert {name for name, answer in answers.items() if answer.source == "recorded"} == RECORDED
    assert set(answers) == LIVE | RECORDED


def test_every_service_has_a_valid_reply(simulator: Simulator) -> None:
    answers = Providers(Scenario(), live=True).replies()
    for name, answer in answers.items():
        simulator.set_reply(name, answer)  # an unknown name, or a value of another form, is refused
    assert {name for name in simulator._library.forms if simulator.source(name) == "none"} == set()


def test_no_scenario_and_not_live_has_no_replies() -> None:
    assert Providers(Scenario(), live=False).replies() == {}


def asked(answers: dict[str, Reply], service: str, *arguments: object) -> Any:
    """A service's reply, made as the appliance makes it."""
    reply = answers[service].reply
    return reply(*arguments) if callable(reply) else reply


def command(answers: dict[str, Reply], text: bytes) -> Reply:
    """The command line's answer."""
    answer = asked(answers, "get_cli_cmd_output", text)
    assert isinstance(answer, Reply)
    return answer


def test_unknown_command_has_no_output() -> None:
    answers = Providers(Scenario(), live=True).replies()
    for text in (b"", b" ", b"get system", b"get system arp now", b"GET SYSTEM ARP", b"\xff\xfe"):
        assert command(answers, text) == Reply(None, "none")
    with Simulator(live=True) as simulator:
        error = simulator.module.CFunctionError
        with pytest.raises(error, match="result is null"):
            simulator.module.get_cli_command_output("get system nonsense")


def test_command_words_split_at_any_white_space() -> None:
    answers = Providers(Scenario(), live=True).replies()
    assert command(answers, b" get\tsystem   arp\r\n").source == "live"


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
