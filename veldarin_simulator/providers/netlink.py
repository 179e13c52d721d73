"""One question to the kernel over netlink, for the answers that read its tables.

A socket lives as long as its question: the kernel's tables change between two calls, so nothing
is kept. The library beneath runs an event loop of its own, which a thread that already runs one
refuses; such a caller's question is put from a thread of its own.
"""

from __future__ import annotations

import asyncio
from concurrent.futures import ThreadPoolExecutor
from typing import Any, Callable, TypeVar

Result = TypeVar("Result")

# A netlink message: its header fields by name, its attributes through `get_attr`.
Message = Any


def ask(question: Callable[[Any], Result]) -> Result:
    """What `question` returns, called with an open `pyroute2.IPRoute`.

    Raises `OSError` where no netlink socket can be had and pyroute2's `NetlinkError` (its `code`
    is an errno value) where the kernel refuses the question.
    """

    def put() -> Result:
        from pyroute2 import IPRoute  # takes long to load, and most calls ask nothing of it

        with IPRoute() as kernel:
            return question(kernel)

    try:
        asyncio.get_running_loop()
    except RuntimeError:
        return put()
    with ThreadPoolExecutor(max_workers=1) as aside:
        return aside.submit(put).result()


def interface_names(kernel: Any) -> dict[int, str]:
    """Interface index to interface name, of every link in this network namespace."""
    return {link["index"]: link.get_attr("IFLA_IFNAME") for link in kernel.get_links()}
