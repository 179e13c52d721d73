"""A scenario for tests of the console, whose replies do not depend on this machine."""

from __future__ import annotations

from veldarin_simulator import Scenario

ARP = (
    "Address          Age(min)   Hardware address    Interface\n"
    "192.0.2.10       0          02:00:00:aa:bb:cc   port1\n"
)
ROUTING = (
    "Routing entry for 192.0.2.0/24\n"
    "  Known via static, distance 10, metric 0, best\n"
    "  Last update 01:02:03 ago\n"
    "  * 198.51.100.1, via port1\n"
)
BFD = """\
get router info bfd neighbor
peer 10.0.0.2 interface port1
    Status: down
    Local timers
        Detect Multiplier: 3
        Receive Interval: 250
        Transmit Interval: 250
peer 10.0.0.3 interface port2
    Status: up
"""
SCENARIO = Scenario(
    {
        "cli/get system arp.txt": ARP.encode(),
        "cli/get router info routing-table detail {}.txt": ROUTING.encode(),
        "aps_get_new_cookie_id.json": b"4294967295",
        "build_switch_port_statistics.json": b'[{"port_name": "port1", "errin": 3}]',
        "build_system_interface_physical.json": b'[{"interface": [{"name": "port1"}]}]',
    }
)
