"""Providers: where the simulator's replies come from, by default.

`arp`, `routing`, `links`, `ports`, `storage`, `multicast`, `certificates`, `cookies`, `bfd` and
`serial_number` read this machine; `sniffer` keeps the state of recorded packet captures;
`cli_commands` runs commands. No provider invents data: a reply is live or recorded, and says so.
"""

from __future__ import annotations

from collections.abc import Callable, Mapping
from importlib import import_module
from typing import Any

from veldarin_simulator.extras import explain_missing_package
from veldarin_simulator.providers import cookies, serial_number
from veldarin_simulator.providers.cli_commands import CommandRunner
from veldarin_simulator.providers.sniffer import CONTROLS, SUMMARY, SnifferProfiles
from veldarin_simulator.reply import Reply
from veldarin_simulator.scenario import (
    CLI_SERVICE,
    DEFAULT_SCENARIO,
    SERVICES,
    Scenario,
    changed_services,
    filter_rows,
    request_names,
)


class Providers:
    """The replies of all services: the user's scenario, this machine, then the default scenario.

    A reply may raise later, when it is used: `OSError` if the machine withholds what it reads.

    Args:
        scenario: The user's scenario.
        live: Whether this machine and the default scenario follow.

    Raises:
        ScenarioError: The default scenario cannot be used.
        OSError: The machine has no serial number and none can be stored.
    """

    def __init__(self, scenario: Scenario, live: bool) -> None:
        default = Scenario.load(DEFAULT_SCENARIO) if live else Scenario()
        self._user = _Recorded(scenario)
        self._default = _Recorded(default)
        self._live = _live_replies() if live else {}
        self._commands = CommandRunner(scenario, default, live)

    @property
    def scenario(self) -> Scenario:
        """The user's scenario."""
        return self._user.scenario

    def replies(self) -> dict[str, Reply]:
        """Return the replies of all services that have one."""
        found = {service: self.reply(service) for service in (*SERVICES, CLI_SERVICE)}
        return {service: reply for service, reply in found.items() if reply is not None}

    def reply(self, service: str) -> Reply | None:
        """Return the reply of a service, or None."""
        if service == CLI_SERVICE:
            return self._commands.reply()
        machine = self._live.get(service) or self._default.reply(service, None)
        return self._user.reply(service, machine)

    def use_scenario(self, scenario: Scenario) -> set[str]:
        """Replace the user's scenario. Return the services whose reply has changed.

        Packet captures keep their state, unless the list of sniffer profiles changes.
        """
        changed = changed_services(self.scenario, scenario)
        if SUMMARY in changed:
            self._user = _Recorded(scenario)
            changed.update(CONTROLS)
        else:
            self._user.scenario = scenario
        self._commands.user = scenario
        return changed


class _Recorded:
    """The replies of one scenario, with the state of its packet captures."""

    def __init__(self, scenario: Scenario) -> None:
        self.scenario = scenario
        self._profiles: dict[str, Any] = {}
        summary = scenario.services.get(SUMMARY, {})
        if _is_single(summary):
            self._profiles = SnifferProfiles(summary[""][0]).replies()

    def reply(self, service: str, otherwise: Reply | None) -> Reply | None:
        """Return the reply of a service, its sequences at their beginning.

        Args:
            service: The service.
            otherwise: The reply to requests that the scenario has no reply to.
        """
        if service in self._profiles:
            otherwise = Reply(self._profiles[service], "recorded")
        requests = self.scenario.services.get(service)
        if requests is None or (service == SUMMARY and self._profiles):
            return otherwise
        if _is_single(requests):
            return Reply(filter_rows(requests[""][0]), "recorded")
        return Reply(_RecordedReplies(requests, otherwise), "recorded")


def _is_single(requests: Mapping[str, tuple[Any, ...]]) -> bool:
    return {*requests} == {""} and len(requests[""]) == 1


class _RecordedReplies:
    """Chooses the recorded reply to each call of a service, by its request and its turn."""

    def __init__(self, requests: Mapping[str, tuple[Any, ...]], otherwise: Reply | None) -> None:
        self._requests = requests
        self._otherwise = otherwise
        self._calls = dict.fromkeys(requests, 0)

    def __call__(self, request: Any = None) -> object:
        name = next((name for name in request_names(request) if name in self._requests), "")
        if name not in self._requests:
            return self._other_reply(request)
        steps = self._requests[name]
        value = steps[min(self._calls[name], len(steps) - 1)]
        self._calls[name] += 1
        rows = value if name else filter_rows(value)
        return rows(request) if callable(rows) else rows

    def _other_reply(self, request: Any) -> Reply:
        if self._otherwise is None:
            return Reply(None, "none")
        value = self._otherwise.reply
        if callable(value):
            value = value(request)
        return value if isinstance(value, Reply) else Reply(value, self._otherwise.source)


def _live_replies() -> dict[str, Reply]:
    cipher = cookies.ValueCipher()
    live = {
        "serial_number_ascii": serial_number.read(),
        "build_system_interface_physical": _provided("links", "physical_interfaces"),
        "build_system_link_monitor_status": _provided("links", "link_monitor_status"),
        "build_system_flash_list": _provided("storage", "flash_list"),
        "build_switch_flapguard_status": _provided("links", "flap_guard_status"),
        "build_switch_port_statistics": _provided("ports", "statistics"),
        "build_switch_igmp_snooping_group": _provided("multicast", "groups"),
        "gui_chk_cert_expiration": _provided("certificates", "check"),
        "aps_get_new_cookie_id": cookies.new_identifier,
        "__get_aps_hash": cookies.text_hash,
        "cookieval_wrap": cipher.wrap,
        "cookieval_unwrap": cipher.unwrap,
    }
    return {service: Reply(reply, "live") for service, reply in live.items()}


def _provided(module: str, function: str) -> Callable[[Any], Any]:
    """Return a provider that is imported when it is called: its packages are optional."""

    def reply(argument: Any) -> Any:
        with explain_missing_package("this machine's state"):
            provider = import_module(f"veldarin_simulator.providers.{module}")
            return getattr(provider, function)(argument)

    return reply
