"""The ARP listing and routing entries, compared with `ip`."""

from __future__ import annotations

import json
import os
import subprocess
from ipaddress import ip_network
from types import ModuleType

import pytest
from pyroute2.netlink.rtnl.ndmsg import NUD_STALE

from tests.support import event_loop
from tests.support.netns import (
    ENV_WITHOUT_SANITIZER,
    PORTS,
    Message,
    ip_json,
    needs_ip,
    run_in_netns,
)
from veldarin_simulator import Simulator
from veldarin_simulator.providers import arp, routing

pytestmark = pytest.mark.requires("netlink")
NEIGHBORS = (
    "ip neigh add 198.51.100.7 lladdr 02:00:00:00:00:07 dev port1 nud permanent",
    "ip neigh add 198.51.100.8 lladdr 02:00:00:00:00:08 dev port1 nud stale",
    "ip neigh add 198.51.100.9 lladdr 02:00:00:00:00:09 dev port1 nud reachable",
    "ip neigh add 198.51.100.10 dev port1 nud failed",
    "ip neigh add 198.51.100.11 lladdr 02:00:00:00:00:11 dev port1 nud noarp",
    "ip neigh add 198.51.100.12 dev port1 nud incomplete",
    "ip neigh add 2001:db8::7 lladdr 02:00:00:00:00:77 dev port1 nud permanent",
)
LIST_ARP_AND_AGES = """
import json, subprocess
from veldarin_simulator.providers import arp
def confirmed():
    listed = json.loads(subprocess.check_output(["ip", "-s", "-j", "-4", "neigh", "show"]))
    return {entry["dst"]: entry["confirmed"] for entry in listed}
print(json.dumps([confirmed(), arp.listing(), confirmed()]))
"""


def test_arp_listing_parses_to_the_neighbors(simulator: Simulator, module: ModuleType) -> None:
    before, listing, after = run_in_netns(PORTS + NEIGHBORS, LIST_ARP_AND_AGES)
    simulator.set_reply("get_cli_cmd_output", listing)
    rows = {row["ipAddress"]: row for row in module.get_system_arp_result()}
    assert {address: row["mac"] for address, row in rows.items()} == {
        "198.51.100.7": "02:00:00:00:00:07",
        "198.51.100.8": "02:00:00:00:00:08",
        "198.51.100.9": "02:00:00:00:00:09",
        "198.51.100.12": "(incomplete)",
    }
    assert {row["interface"] for row in rows.values()} == {"port1"}
    assert rows["198.51.100.7"]["age"] == rows["198.51.100.12"]["age"] == "-"
    for address in ("198.51.100.8", "198.51.100.9"):
        # The kernel's clock may have advanced by a second.
        earliest, latest = before[address] // 60, (after[address] + 1) // 60
        assert earliest <= int(rows[address]["age"]) <= latest


LIST_ARP = (
    "import json; from veldarin_simulator.providers import arp; print(json.dumps(arp.listing()))"
)


def test_arp_listing_without_neighbors_has_no_rows(
    simulator: Simulator, module: ModuleType
) -> None:
    simulator.set_reply("get_cli_cmd_output", run_in_netns(("true",), LIST_ARP))
    assert module.get_system_arp_result() == []


@needs_ip
def test_arp_listing_matches_ip_neigh(simulator: Simulator, module: ModuleType) -> None:
    def neighbors() -> set[tuple[str, str, str]]:
        return {
            (entry["dst"], entry["lladdr"], entry["dev"])
            for entry in ip_json("-4", "neigh", "show")
            if "lladdr" in entry and not {"FAILED", "NOARP"} & set(entry["state"])
        }

    # The table may change: repeat until it is the same before and after.
    for _ in range(10):
        before = neighbors()
        simulator.set_reply("get_cli_cmd_output", arp.listing())
        if before == neighbors():
            break
    listed = {
        (row["ipAddress"], row["mac"], row["interface"])
        for row in module.get_system_arp_result()
        if row["mac"] != "(incomplete)"
    }
    assert listed == before


def test_arp_age_is_in_whole_minutes() -> None:
    ticks_per_second = os.sysconf("SC_CLK_TCK")

    def age(seconds: int) -> str:
        confirmed = {"ndm_confirmed": seconds * ticks_per_second}
        return arp._age(Message({"state": NUD_STALE}, {"NDA_CACHEINFO": confirmed}))

    ages = [age(seconds) for seconds in (0, 59, 60, 3599, 86400)]
    assert ages == ["0", "0", "1", "59", "1440"]


def test_query_inside_event_loop_succeeds() -> None:
    async def from_a_coroutine() -> str:
        return arp.listing()

    assert event_loop.run(from_a_coroutine()).startswith("Address")


ROUTES = (
    "ip link add port3 type veth peer name port4",  # stays down
    "ip route add 203.0.113.0/24 nexthop via 198.51.100.2 dev port1 weight 1"
    " nexthop via 198.51.100.3 dev port1 weight 5",
    "ip route add blackhole 192.0.2.0/25",
    "ip route add unreachable 192.0.2.128/26",
    "ip route add prohibit 192.0.2.192/26",
    "ip route add 10.1.0.0/16 via 198.51.100.9 metric 77 proto static",
    "ip route add 10.1.2.0/24 via 198.51.100.8 proto bgp",
    "ip route add 10.2.0.0/16 via inet6 fe80::1 dev port1",
    "ip route add 10.3.0.0/16 proto 123 via 198.51.100.9",
    "ip route add 10.4.0.0/16 proto 196 via 198.51.100.9",
    "ip route add blackhole 10.7.0.0/16 table 77",
    "ip rule add to 10.7.0.0/16 lookup 77",
    "ip rule add to 10.8.0.0/16 prohibit",
    "ip -6 route add blackhole 2001:db8:1::/48",
    "ip -6 address add 2001:db8:2::1/64 dev port1 nodad",
    "ip -6 route add 2001:db8:3::/48 via 2001:db8:2::9 dev port1 metric 5",
)
DETAILS = """
import json, sys
from veldarin_simulator.providers import routing
addresses = {addresses!r}
print(json.dumps({{address: routing.detail(address) for address in addresses}}))
"""


def details(*addresses: str, setup: tuple[str, ...] = PORTS + ROUTES) -> dict[str, str]:
    """Return the routing entries for addresses in a namespace with `ROUTES`."""
    source = DETAILS.format(addresses=addresses)
    return dict(run_in_netns(setup, source))


def test_routing_entry_parses_completely(simulator: Simulator, module: ModuleType) -> None:
    simulator.set_reply("get_cli_cmd_output", details("10.1.0.1")["10.1.0.1"])
    assert module.get_routing_table_result("10.1.0.1") == {
        "entry": "10.1.0.0/16",
        "distance": "0",
        "metric": "77",
        "lastUpdate": "n/a",
        "other": '  Known via "static",  best',
        "table": [{"main": "*", "ip": "198.51.100.9", "interface": "port1"}],
    }


ENTRIES = {
    # address: prefix, protocol, distance, metric, next hops
    "203.0.113.5": (
        "203.0.113.0/24",
        "boot",
        "0",
        "0",
        [("*", "198.51.100.2", "port1"), ("*", "198.51.100.3", "port1")],
    ),
    "10.1.2.3": ("10.1.2.0/24", "bgp", "n/a", "0", [("*", "198.51.100.8", "port1")]),
    "10.2.0.1": ("10.2.0.0/16", "boot", "0", "0", [("*", "fe80::1", "port1")]),
    "10.3.0.1": ("10.3.0.0/16", "123", "0", "0", [("*", "198.51.100.9", "port1")]),
    # The kernel does not know the distance of a routing daemon's static route.
    "10.4.0.1": ("10.4.0.0/16", "static", "n/a", "0", [("*", "198.51.100.9", "port1")]),
    "198.51.100.77": (
        "198.51.100.0/24",
        "connected",
        "0",
        "0",
        [("directly", "connected", "port1")],
    ),
    "198.51.100.1": ("198.51.100.1/32", "local", "0", "0", [("directly", "connected", "port1")]),
    "192.0.2.1": ("192.0.2.0/25", "boot", "0", "0", [("*", "blackhole", "none")]),
    "192.0.2.129": ("192.0.2.128/26", "boot", "0", "0", [("*", "unreachable", "none")]),
    "192.0.2.193": ("192.0.2.192/26", "boot", "0", "0", [("*", "prohibit", "none")]),
    "2001:db8:1::1": ("2001:db8:1::/48", "boot", "0", "1024", [("*", "blackhole", "none")]),
    "2001:db8:3::1": ("2001:db8:3::/48", "boot", "0", "5", [("*", "2001:db8:2::9", "port1")]),
}


def test_routing_entry_has_fields_and_next_hops(simulator: Simulator, module: ModuleType) -> None:
    read = {}
    for address, text in details(*ENTRIES).items():
        simulator.set_reply("get_cli_cmd_output", text)
        result = module.get_routing_table_result(address)
        protocol = result["other"].split('"')[1]
        hops = [tuple(hop.values()) for hop in result["table"]]
        read[address] = (result["entry"], protocol, result["distance"], result["metric"], hops)
    assert read == ENTRIES


def test_default_route_covers_other_addresses(simulator: Simulator, module: ModuleType) -> None:
    setup = (*PORTS, "ip route add default via 198.51.100.2")
    simulator.set_reply("get_cli_cmd_output", details("8.8.8.8", setup=setup)["8.8.8.8"])
    result = module.get_routing_table_result("8.8.8.8")
    assert result["entry"] == "0.0.0.0/0"
    assert result["table"] == [{"main": "*", "ip": "198.51.100.2", "interface": "port1"}]


def test_next_hop_with_link_down_has_no_asterisk(simulator: Simulator, module: ModuleType) -> None:
    setup = (*PORTS, "ip route add 10.9.0.0/16 via 198.51.100.2", "ip link set port2 down")
    simulator.set_reply("get_cli_cmd_output", details("10.9.0.1", setup=setup)["10.9.0.1"])
    hops = module.get_routing_table_result("10.9.0.1")["table"]
    assert hops == [{"main": "", "ip": "198.51.100.2", "interface": "port1"}]


ERRORS = {
    "8.8.8.8": "% Network not in table\n",
    "0.0.0.0": "% Network not in table\n",
    "2001:db8:9::1": "% Network not in table\n",
    "10.7.0.1": "% Refused by a policy rule\n",
    "10.8.0.1": "% Refused by a policy rule\n",
}


def test_address_without_entry_prints_an_error(simulator: Simulator, module: ModuleType) -> None:
    for address, text in details(*ERRORS).items():
        assert text == ERRORS[address]
        simulator.set_reply("get_cli_cmd_output", text)
        with pytest.raises(IndexError):
            module.get_routing_table_result(address)


MALFORMED = ("", "None", "10.0.0.0/8", "256.1.1.1", "fe80::1%port1", "1.2.3", "; ip link", "é" * 60)


@pytest.mark.parametrize("address", MALFORMED)
def test_malformed_address_prints_an_error(address: str) -> None:
    assert routing.detail(address) == "% Malformed address\n"


@needs_ip
@pytest.mark.parametrize("address", ["127.0.0.1", "198.51.100.1", "::1"])
def test_routing_entry_matches_ip_route(address: str) -> None:
    tried = subprocess.run(
        ["ip", "-j", "route", "get", "fibmatch", address],
        env=ENV_WITHOUT_SANITIZER,
        capture_output=True,
        check=False,
    )
    text = routing.detail(address)
    if tried.returncode:
        assert text.startswith("%") or "none" in text
        return
    (expected,) = json.loads(tried.stdout)
    prefix = expected["dst"].replace("default", "0.0.0.0/0" if "." in address else "::/0")
    assert text.startswith(f"Routing entry for {ip_network(prefix)}\n")
    assert f"metric {expected.get('metric', 0)}, " in text
    if "gateway" in expected:
        assert f"  * {expected['gateway']}, via {expected['dev']}\n" in text
    else:
        assert f"  directly connected, {expected['dev']}\n" in text
