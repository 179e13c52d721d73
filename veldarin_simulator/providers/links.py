"""The machine's network links: physical interfaces, what the link monitor sees, flap counts.

Source: RTM_GETLINK and RTM_GETADDR dumps, the driver's speed and duplex through psutil, the
device behind a link in /sys/class/net. "Physical" are the links with a device behind them; on a
machine that has none (a container), every link that leads out; else the loopback alone.
"""

from __future__ import annotations

from collections import defaultdict
from pathlib import Path
from typing import Any

import psutil

from veldarin_simulator.providers.netlink import Message, ask

_SYSFS = Path("/sys/class/net")
_IFF_UP = 1
_IFF_LOOPBACK = 8
_DUPLEX = {psutil.NIC_DUPLEX_FULL: "full", psutil.NIC_DUPLEX_HALF: "half"}

# What drivers say in place of a speed that they do not know, in Mbit/s.
_NO_SPEED = (0, 65535)


def physical_interfaces(_request: object = None) -> list[dict[str, Any]]:
    """`[{"interface": [entry, ...]}]`, the entries in the order of the kernel's interface indexes.

    An entry: `name`; `type` (see `_kind`); `status` "up" or "down" as administered; `link` whether
    there is a carrier; `speed` in Mbit/s and `duplex` "full" or "half", null where the driver does
    not say; `mtu` in bytes; `mac`; `addresses` in prefix notation.
    """
    links, addresses = ask(lambda kernel: (_monitored(kernel), _addresses(kernel)))
    drivers = psutil.net_if_stats()
    return [{"interface": [_interface(link, addresses, drivers) for link in links]}]


def link_monitor_status(_request: object = None) -> list[dict[str, Any]]:
    """One entry for each physical interface: `name`, `status` (the kernel's operational state in
    lower case), `carrier`, and how often the carrier came (`carrier_up_count`), went
    (`carrier_down_count`) and changed at all (`carrier_changes`) since the link was made."""
    return [
        {
            "name": _name(link),
            "status": link.get_attr("IFLA_OPERSTATE").lower(),
            "carrier": _has_carrier(link),
            "carrier_up_count": link.get_attr("IFLA_CARRIER_UP_COUNT"),
            "carrier_down_count": link.get_attr("IFLA_CARRIER_DOWN_COUNT"),
            "carrier_changes": link.get_attr("IFLA_CARRIER_CHANGES"),
        }
        for link in ask(_monitored)
    ]


def flap_guard_status(_request: object = None) -> list[dict[str, Any]]:
    """One entry for each physical interface: `port_name`, `link` "up" or "down", and `flaps`, how
    often the link was lost. A plain machine guards no port, so `guard` is "none"."""
    return [
        {
            "port_name": _name(link),
            "link": "up" if _has_carrier(link) else "down",
            "flaps": link.get_attr("IFLA_CARRIER_DOWN_COUNT"),
            "guard": "none",
        }
        for link in ask(_monitored)
    ]


def _monitored(kernel: Any) -> list[Message]:
    links = list(kernel.get_links())
    with_device = [link for link in links if _has_device(link)]
    outward = [link for link in links if not link["flags"] & _IFF_LOOPBACK]
    return with_device or outward or links


def _addresses(kernel: Any) -> dict[int, list[str]]:
    by_link = defaultdict(list)
    for address in kernel.get_addr():
        own = address.get_attr("IFA_LOCAL") or address.get_attr("IFA_ADDRESS")
        by_link[address["index"]].append(f"{own}/{address['prefixlen']}")
    return by_link


def _interface(link: Message, addresses: dict[int, list[str]], drivers: Any) -> dict[str, Any]:
    driver = drivers.get(_name(link))  # none where the link went meanwhile
    return {
        "name": _name(link),
        "type": _kind(link),
        "status": "up" if link["flags"] & _IFF_UP else "down",
        "link": _has_carrier(link),
        "speed": driver.speed if driver and driver.speed not in _NO_SPEED else None,
        "duplex": _DUPLEX.get(driver.duplex) if driver else None,
        "mtu": link.get_attr("IFLA_MTU"),
        "mac": link.get_attr("IFLA_ADDRESS"),
        "addresses": addresses.get(link["index"], []),
    }


def _name(link: Message) -> str:
    return str(link.get_attr("IFLA_IFNAME"))


def _kind(link: Message) -> str:
    """The kernel's word for a virtual link ("veth", "bridge"), else "device" or "loopback"."""
    if _has_device(link):
        return "device"
    if link["flags"] & _IFF_LOOPBACK:
        return "loopback"
    information = link.get_attr("IFLA_LINKINFO")
    return (information and information.get_attr("IFLA_INFO_KIND")) or "virtual"


def _has_device(link: Message) -> bool:
    return (_SYSFS / _name(link) / "device").exists()


def _has_carrier(link: Message) -> bool:
    # A link that is down keeps its last carrier word; there is none while it is down.
    return bool(link["flags"] & _IFF_UP and link.get_attr("IFLA_CARRIER"))
