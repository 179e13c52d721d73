"""Network links: physical interfaces, the link monitor, flap counts.

Source: RTM_GETLINK and RTM_GETADDR dumps, psutil for the driver's speed and duplex,
/sys/class/net for the device behind a link. "Physical" are the links with a device; without any (in
a container) all links except the loopback, or the loopback alone.
"""

from __future__ import annotations

from collections import defaultdict
from pathlib import Path
from typing import Any

import psutil

from veldarin_simulator.providers.netlink import Message, query

_SYSFS = Path("/sys/class/net")
_IFF_UP = 1
_IFF_LOOPBACK = 8
_DUPLEX = {psutil.NIC_DUPLEX_FULL: "full", psutil.NIC_DUPLEX_HALF: "half"}
_UNKNOWN_SPEEDS = (0, 65535)  # of drivers, in Mbit/s


def physical_interfaces(_request: object = None) -> list[dict[str, Any]]:
    """Return `[{"interface": [entry, ...]}]`, in the order of the interface indexes.

    An entry has `name`; `type` (see `_kind`); the administrative `status` "up" or "down"; `link`,
    true with a carrier; `speed` in Mbit/s and `duplex` "full" or "half", null if the driver does
    not know; `mtu` in bytes; `mac`; `addresses` in prefix notation.
    """
    links, addresses = query(lambda kernel: (_selected(kernel), _addresses(kernel)))
    drivers = psutil.net_if_stats()
    return [{"interface": [_interface(link, addresses, drivers) for link in links]}]


def link_monitor_status(_request: object = None) -> list[dict[str, Any]]:
    """Return an entry for each physical interface.

    An entry has `name`, `status` (the operational state in lower case), `carrier`, and how often
    the carrier came (`carrier_up_count`), went (`carrier_down_count`) and changed at all
    (`carrier_changes`) since the link was created.
    """
    return [
        {
            "name": _name(link),
            "status": link.get_attr("IFLA_OPERSTATE").lower(),
            "carrier": _has_carrier(link),
            "carrier_up_count": link.get_attr("IFLA_CARRIER_UP_COUNT"),
            "carrier_down_count": link.get_attr("IFLA_CARRIER_DOWN_COUNT"),
            "carrier_changes": link.get_attr("IFLA_CARRIER_CHANGES"),
        }
        for link in query(_selected)
    ]


def flap_guard_status(_request: object = None) -> list[dict[str, Any]]:
    """Return an entry for each physical interface.

    An entry has `port_name`, `link` "up" or "down", `flaps` (how often the link was lost), and
    `guard`, always "none" because a workstation guards no port.
    """
    return [
        {
            "port_name": _name(link),
            "link": "up" if _has_carrier(link) else "down",
            "flaps": link.get_attr("IFLA_CARRIER_DOWN_COUNT"),
            "guard": "none",
        }
        for link in query(_selected)
    ]


def _selected(kernel: Any) -> list[Message]:
    links = list(kernel.get_links())
    with_device = [link for link in links if _has_device(link)]
    return with_device or [link for link in links if not link["flags"] & _IFF_LOOPBACK] or links


def _addresses(kernel: Any) -> dict[int, list[str]]:
    by_link = defaultdict(list)
    for address in kernel.get_addr():
        local = address.get_attr("IFA_LOCAL") or address.get_attr("IFA_ADDRESS")
        by_link[address["index"]].append(f"{local}/{address['prefixlen']}")
    return by_link


def _interface(link: Message, addresses: dict[int, list[str]], drivers: Any) -> dict[str, Any]:
    driver = drivers.get(_name(link))  # none if the link has disappeared since
    return {
        "name": _name(link),
        "type": _kind(link),
        "status": "up" if link["flags"] & _IFF_UP else "down",
        "link": _has_carrier(link),
        "speed": driver.speed if driver and driver.speed not in _UNKNOWN_SPEEDS else None,
        "duplex": _DUPLEX.get(driver.duplex) if driver else None,
        "mtu": link.get_attr("IFLA_MTU"),
        "mac": link.get_attr("IFLA_ADDRESS"),
        "addresses": addresses.get(link["index"], []),
    }


def _name(link: Message) -> str:
    return str(link.get_attr("IFLA_IFNAME"))


def _kind(link: Message) -> str:
    """Return the kernel's word for a virtual link ("veth", "bridge"), or "device", "loopback"."""
    if _has_device(link):
        return "device"
    if link["flags"] & _IFF_LOOPBACK:
        return "loopback"
    information = link.get_attr("IFLA_LINKINFO")
    return (information and information.get_attr("IFLA_INFO_KIND")) or "virtual"


def _has_device(link: Message) -> bool:
    return (_SYSFS / _name(link) / "device").exists()


def _has_carrier(link: Message) -> bool:
    # The attribute of a link that is down may be outdated.
    return bool(link["flags"] & _IFF_UP and link.get_attr("IFLA_CARRIER"))
