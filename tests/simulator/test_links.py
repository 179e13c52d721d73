"""Links, ports and multicast groups, compared with the system's own tools."""

from __future__ import annotations

import sys
from pathlib import Path
from types import ModuleType
from typing import Any

import psutil
import pytest

from tests.support.netns import PORTS, Message, ip_json, needs_ip, run_in_netns
from veldarin_simulator import Simulator
from veldarin_simulator.providers import links, multicast, ports


@pytest.mark.requires("netlink")
def test_physical_interfaces_match_ip_link(simulator: Simulator, module: ModuleType) -> None:
    # The kernel adds link-local addresses some time after a link is up: repeat until `ip` prints
    # the same before and after the call.
    result, expected = run_in_netns(
        (
            *PORTS,
            "ip link add port9 mtu 1280 address 02:00:00:00:00:99 type veth peer name port10",
            "ip -6 address add 2001:db8::1/64 dev port1 nodad",
        ),
        "import json\n"
        "from veldarin_simulator.providers import links\n"
        "from tests.support.netns import ip_json\n"
        "before, result, after = None, None, ip_json('addr', 'show')\n"
        "while before != after:\n"
        "    before = after\n"
        "    result = links.physical_interfaces({})\n"
        "    after = ip_json('addr', 'show')\n"
        "print(json.dumps([result, after]))",
    )
    simulator.set_reply("build_system_interface_physical", result)
    assert module.list_system_interface_physical("port9") == {
        "name": "port9",
        "type": "veth",
        "status": "down",
        "link": False,
        "speed": 10000,
        "duplex": "full",
        "mtu": 1280,
        "mac": "02:00:00:00:00:99",
        "addresses": [],
    }
    named = {entry["name"]: entry for entry in result[0]["interface"]}
    links_shown = [link for link in expected if link["ifname"] != "lo"]
    assert set(named) == {link["ifname"] for link in links_shown}
    for link in links_shown:
        entry = named[link["ifname"]]
        assert entry["mac"] == link["address"]
        assert entry["mtu"] == link["mtu"]
        assert (entry["status"] == "up") == ("UP" in link["flags"])
        assert set(entry["addresses"]) == {
            f"{address['local']}/{address['prefixlen']}" for address in link["addr_info"]
        }


@pytest.mark.requires("netlink")
def test_only_loopback_is_listed_as_interface() -> None:
    (entry,) = run_in_netns(
        ("ip link set lo up",),
        "import json; from veldarin_simulator.providers import links\n"
        "print(json.dumps(links.physical_interfaces()[0]['interface']))",
    )
    assert entry["name"] == "lo"
    assert entry["type"] == "loopback"
    assert entry["addresses"] == ["127.0.0.1/8", "::1/128"]
    assert entry["speed"] is None


@pytest.mark.requires("netlink")
def test_links_with_device_hide_virtual_links() -> None:
    with_device = {path.parent.name for path in Path("/sys/class/net").glob("*/device")}
    if not with_device:
        pytest.skip("no interface of this machine has a device")
    entries = links.physical_interfaces()[0]["interface"]
    assert {entry["name"] for entry in entries} == with_device
    assert {entry["type"] for entry in entries} == {"device"}


@pytest.mark.requires("netlink")
def test_link_monitor_matches_sysfs() -> None:
    for entry in links.link_monitor_status():
        folder = Path("/sys/class/net") / entry["name"]
        assert entry["carrier_changes"] == int((folder / "carrier_changes").read_text())
        assert entry["carrier_up_count"] == int((folder / "carrier_up_count").read_text())
        assert entry["carrier_down_count"] == int((folder / "carrier_down_count").read_text())
        assert entry["status"] == (folder / "operstate").read_text().strip()


@pytest.mark.parametrize(("flags", "carrier"), [(0, 1), (1, 0), (0, 0)])
def test_link_that_is_down_has_no_carrier(flags: int, carrier: int) -> None:
    # Some drivers do not reset the attribute when the link is taken down.
    assert links._has_carrier(Message({"flags": flags}, {"IFLA_CARRIER": carrier})) is False
    assert links._has_carrier(Message({"flags": 1}, {"IFLA_CARRIER": 1})) is True


@pytest.mark.requires("netlink")
def test_lost_link_increases_flap_count() -> None:
    flap = ("ip link set port2 down", "sleep 0.1", "ip link set port2 up", "sleep 0.1")
    monitor, status = run_in_netns(
        PORTS + flap + flap,
        "import json; from veldarin_simulator.providers import links\n"
        "print(json.dumps([links.link_monitor_status(), links.flap_guard_status()]))",
    )
    (port1,) = (entry for entry in monitor if entry["name"] == "port1")
    assert port1["carrier"] is True
    assert port1["status"] == "up"
    # The link starts down, which counts as a loss.
    assert (port1["carrier_up_count"], port1["carrier_down_count"]) == (3, 3)
    (flaps,) = (entry for entry in status if entry["port_name"] == "port1")
    assert flaps == {"port_name": "port1", "link": "up", "flaps": 3, "guard": "none"}


def test_port_statistics_match_the_kernel() -> None:
    before = psutil.net_io_counters(pernic=True, nowrap=False)
    entries = {entry["port_name"]: entry for entry in ports.statistics({})}
    after = psutil.net_io_counters(pernic=True, nowrap=False)
    assert set(entries) == set(before)
    assert "lo" in entries
    for name, entry in entries.items():
        for counter in ("bytes_sent", "bytes_recv", "packets_sent", "packets_recv", "errin"):
            low, high = getattr(before[name], counter), getattr(after[name], counter)
            assert low <= entry[counter] <= high
    fields = "bytes_sent bytes_recv packets_sent packets_recv errin errout dropin dropout"
    assert list(entries["lo"]) == ["port_name", *fields.split()]


@pytest.mark.parametrize("service", [ports.statistics, multicast.groups])
def test_request_for_a_port_selects_it(service: Any) -> None:
    everything = service({})
    assert everything == service({"port_name": None}) or service is ports.statistics
    lo = [entry for entry in everything if entry["port_name"] == "lo"]
    assert [entry["port_name"] for entry in service({"port_name": "lo"})] == ["lo"] * len(lo)
    assert service({"port_name": "no-such-port"}) == []
    assert service({"port_name": ""}) == []


@needs_ip
@pytest.mark.workstation_only("/proc/net/igmp has the byte order of the workstation's kernel")
def test_multicast_groups_match_ip_maddress() -> None:
    expected = {
        (link["ifname"], entry["address"])
        for link in ip_json("-4", "maddress", "show")
        for entry in link["maddr"]
        if entry.get("family") == "inet"
    }
    assert {(entry["port_name"], entry["group"]) for entry in multicast.groups({})} == expected


def test_igmp_table_with_long_names_parses() -> None:
    # The kernel prints a machine word that is in network order in memory.
    words = {"little": ("010000E0", "FB0000E0"), "big": ("E0000001", "E00000FB")}
    all_hosts, mdns = words[sys.byteorder]
    table = (
        "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
        "1\tlo        :     1      V3\n"
        f"\t\t\t\t{all_hosts}     1 0:00000000\t\t0\n"
        "12\tlongest-name.12:     2      V2\n"
        f"\t\t\t\t{mdns}     3 0:00000000\t\t0\n"
        f"\t\t\t\t{all_hosts}     1 0:00000000\t\t0\n"
    )
    assert multicast.parse(table) == [
        {"port_name": "lo", "group": "224.0.0.1", "users": 1, "version": "V3"},
        {"port_name": "longest-name.12", "group": "224.0.0.251", "users": 3, "version": "V2"},
        {"port_name": "longest-name.12", "group": "224.0.0.1", "users": 1, "version": "V2"},
    ]
