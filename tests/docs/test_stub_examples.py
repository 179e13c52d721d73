"""The examples of the type stub run on a simulator with the replies that they assume. Calls use the
native services, requests and result types that the docstrings name."""

from __future__ import annotations

import ast
import doctest
import re
from collections.abc import Iterator
from typing import Any, Callable

import pytest

from tests.support.query_cases import QUERY_CASES
from tests.support.stub import NAMED, STUB, every_function
from veldarin_simulator import Simulator, stub
from veldarin_simulator.providers import cookies, links, multicast, ports, storage
from veldarin_simulator.scenario import DEFAULT_SCENARIO, Scenario, filter_rows
from veldarin_simulator.stub import Function

ARP = (
    "Address          Age(min)   Hardware address    Interface\n"
    "192.0.2.10       0          02:00:00:aa:bb:cc   port1\n"
    "192.0.2.11       3          02:00:00:aa:bb:cd   port1 vlan10\n"
)
ROUTING = (
    "get router info routing-table detail 192.0.2.7\n"
    "Routing entry for 192.0.2.0/24\n"
    "  Known via static, distance 10, metric 0, best\n"
    "  Last update 01:02:03 ago\n"
    "  * 198.51.100.1, via port1\n"
    "\n"
    "  directly connected, port2\n"
)
TIMERS = "Detect Multiplier: 3\nReceive Interval: 250\nTransmit Interval: 250\n"
BFD = (
    "get router info bfd neighbor 10.0.0.2 port1\n"
    "peer 10.0.0.2 interface port1\n"
    "    Local Diag: 0\n"
    "    Packets received: 52 packets\n"
    f"    Local timers\n{TIMERS}    Remote timers\n{TIMERS}"
)


def shown(function: str) -> Any:
    """The value that the first example in a function's docstring shows."""
    first, *_ = doctest.DocTestParser().get_examples(NAMED[function].docstring)
    return ast.literal_eval(first.want)


PORT = shown("list_system_interface_physical")
FLAPS = shown("list_switch_flapguard_status")
STATISTICS = shown("list_switch_port_statistics")
GROUPS = shown("list_switch_igmp_snooping_group")
FLASH = shown("list_system_flash_list_status")
MONITORED = shown("list_system_link_monitor_status")

# Replies of the services in the examples that the scenario does not have.
ANSWERS: dict[str, object] = {
    "aps_get_new_cookie_id": 2882400018,
    "__get_aps_hash": cookies.text_hash,
    "cookieval_wrap": b"BnSS1xEG6iUw7oviSHidWkBOO15ysCRb2d7BBYbxm9K12LE6UAo",
    "cookieval_unwrap": b"user=admin",
    "gui_chk_cert_expiration": lambda path: 0 if path == b"/etc/ssl/certs/gui.pem" else -1,
    "build_system_interface_physical": [{"interface": [PORT, {**PORT, "name": "port2"}]}],
    "build_system_flash_list": FLASH,
    "build_system_link_monitor_status": MONITORED,
    "build_switch_flapguard_status": FLAPS,
    "build_switch_port_statistics": filter_rows(STATISTICS),
    "build_switch_igmp_snooping_group": filter_rows(GROUPS),
}
OUTPUTS = {
    "get_cli_command_output": ARP,
    "get_bfd_neighbor": BFD,
    "get_routing_table_result": ROUTING,
    "get_system_arp_result": ARP,
}
SECRET = "8f4b1c2d" * 8


@pytest.fixture
def example_simulator(build: None) -> Iterator[Simulator]:
    """The simulator of the examples: the default scenario and the replies above."""
    with Simulator(live=False) as simulator:
        # The shared dictionary of sessions outlives a simulator.
        simulator.set_reply("get_cli_cmd_output", "")
        simulator.module.get_bfd_neighbor("").clear()
    with Simulator(Scenario.load(DEFAULT_SCENARIO), live=False) as simulator:
        for service, reply in ANSWERS.items():
            simulator.set_reply(service, reply)
        simulator.secret_path.write_text(SECRET)
        yield simulator


class Kept:
    """Wrap a function to keep its results."""

    def __init__(self, function: Callable[..., object]) -> None:
        self.function = function
        self.results: list[object] = []

    def __call__(self, *args: object, **kwargs: object) -> object:
        self.results.append(self.function(*args, **kwargs))
        return self.results[-1]


def assert_is(annotation: str, value: Any) -> None:
    """Check the value against the stub's annotation, down to the keys of a row."""
    container = re.fullmatch(r"(list|dict)\[(?:str, )?(\w+)\]", annotation)
    fields = {entry.name: entry.fields for entry in STUB.entries if isinstance(entry, stub.Class)}
    if container is not None:
        assert type(value).__name__ == container[1]
        assert value, "an example without entries shows none"
        for entry in value.values() if container[1] == "dict" else value:
            assert_is(container[2], entry)
    elif annotation in fields:
        assert list(value) == list(fields[annotation])
        for key, held in value.items():
            assert_is(fields[annotation][key], held)
    elif annotation == "BFDSession":
        texts = {key for key, held in value.items() if type(held) is str}
        assert texts >= {"neighbor_ip", "interface", "name"}
        for key in set(value) - texts:
            assert [type(held) for held in value[key].values()] == [str, str, str]
    elif annotation != "Any":
        assert type(value).__name__ == annotation


@every_function
def test_examples_give_documented_results(example_simulator: Simulator, function: Function) -> None:
    simulator, module = example_simulator, example_simulator.module
    if function.name in OUTPUTS:
        simulator.set_reply("get_cli_cmd_output", OUTPUTS[function.name])
    called = Kept(getattr(module, function.name))
    names = {function.name: called}
    example = doctest.DocTestParser().get_doctest(
        function.docstring, names, function.name, str(stub.STUB), 0
    )
    assert example.examples
    output: list[str] = []
    runner = doctest.DocTestRunner(optionflags=doctest.NORMALIZE_WHITESPACE, verbose=False)
    simulator.clear_calls()
    try:
        runner.run(example, out=output.append)
    finally:
        if function.name == "list_bfd_neighbor":
            simulator.set_reply("get_cli_cmd_output", "nothing")
            module.get_bfd_neighbor("command").clear()
    assert "".join(output) == ""
    assert called.results
    for result in called.results:
        assert_is(function.result, result)

    services = {call.service for call in simulator.call_log} - {"JSONObject.release"}
    named = set(re.findall(r"`(\w+)`", function.docstring))
    assert services <= named
    assert bool(services) != (
        "Calls no native service." in function.docstring or function.name == "get_token"
    )


netlink = pytest.mark.requires("netlink")


@pytest.mark.parametrize(
    ("example", "reply"),
    [
        pytest.param([PORT], lambda: links.physical_interfaces()[0]["interface"], marks=netlink),
        pytest.param(MONITORED, links.link_monitor_status, marks=netlink),
        pytest.param(FLAPS, links.flap_guard_status, marks=netlink),
        (STATISTICS, lambda: ports.statistics({})),
        (GROUPS, lambda: multicast.groups({})),
        (FLASH, storage.flash_list),
    ],
)
def test_examples_have_fields_of_live_replies(
    example: list[dict[str, Any]], reply: Callable[[], list[Any]]
) -> None:
    entries = reply()
    if not entries:
        pytest.skip("this machine has no entry of the kind")
    assert list(example[0]) == list(entries[0])


@every_function
def test_query_docs_name_services_and_request(function: Function) -> None:
    rows = [row for row in QUERY_CASES if row.function == function.name]
    text = function.docstring
    assert set(re.findall(r"`(build_\w+)`", text)) == {row.native for row in rows} - {None}
    for row in rows:
        for key in row.request if row.native else ():
            assert f'`{{"{key}": {function.parameters[0].name}}}`' in text
        if row.native and not row.request:
            assert "`{}`" in text
