"""What the stand-in appliance answers by default: this Linux machine's state, and recordings.

One file per concern: `arp`, `routing`, `links`, `ports`, `storage`, `multicast`, `certificates`,
`cookies`, `bfd` read this machine; `recorded` and `captures` hold what a plain machine has not got;
`commands` is the command line. Nothing is made up on the way: an answer is live or recorded, and
says so.
"""

from __future__ import annotations

from pathlib import Path
from typing import Any

from veldarin_simulator.providers import (
    certificates,
    cookies,
    links,
    multicast,
    ports,
    serial_number,
    storage,
)
from veldarin_simulator.providers.cli_commands import CommandLine
from veldarin_simulator.providers.sniffer import Captures
from veldarin_simulator.reply import Reply
from veldarin_simulator.scenario import DEFAULT_SCENARIO, Scenario, ScenarioError, load, row_filter

__all__ = ["ScenarioError", "default_answers"]

_SUMMARY = "build_system_sniffer_profile_summary"


def default_answers(scenario: Path | None, live: bool) -> dict[str, Reply]:
    """Service name to its answer, for `Appliance.set_reply`; the serial number is one of them.

    The scenario, a directory as scenarios/README.md describes it, comes first. With
    `live` this machine's state is next, and the recordings for everybody are last; without it the
    scenario is all there is. Raises `ScenarioError` for a scenario that cannot be used. Answers may
    raise later, when asked: `OSError` where the machine withholds what they read.
    """
    own = load(scenario) if scenario is not None else Scenario()
    stock = load(DEFAULT_SCENARIO) if live else Scenario()
    answers = _recorded(stock)
    if live:
        answers.update((service, Reply(reply, "live")) for service, reply in _live().items())
    answers.update(_recorded(own))
    if live or own.commands:
        command_line = CommandLine(own, stock, live)
        answers["get_cli_cmd_output"] = Reply(command_line.output, "live" if live else "recorded")
    return answers


def _live() -> dict[str, Any]:
    cipher = cookies.ValueCipher()
    return {
        "serial_number_ascii": serial_number.read(),
        "build_system_interface_physical": links.physical_interfaces,
        "build_system_link_monitor_status": links.link_monitor_status,
        "build_system_flash_list": storage.flash_list,
        "build_switch_flapguard_status": links.flap_status,
        "build_switch_port_statistics": ports.statistics,
        "build_switch_igmp_snooping_group": multicast.groups,
        "gui_chk_cert_expiration": certificates.check,
        "aps_get_new_cookie_id": cookies.new_identifier,
        "__get_aps_hash": cookies.text_hash,
        "cookieval_wrap": cipher.wrap,
        "cookieval_unwrap": cipher.unwrap,
    }


def _recorded(scenario: Scenario) -> dict[str, Reply]:
    replies = {service: row_filter(value) for service, value in scenario.services.items()}
    if _SUMMARY in scenario.services:
        captures = Captures(scenario.services[_SUMMARY])
        controlled = {
            _SUMMARY: captures.summary,
            "build_start_sniffer_profile_capture": captures.start,
            "build_stop_sniffer_profile_capture": captures.stop,
            "build_pause_sniffer_profile_capture": captures.pause,
            "build_delete_sniffer_profile_capture": captures.delete,
        }
        replies = {**controlled, **{k: v for k, v in replies.items() if k != _SUMMARY}}
    return {service: Reply(reply, "recorded") for service, reply in replies.items()}
