"""Queries of the kernel's network tables over netlink.

The tables change between two calls, so each query has its own socket. pyroute2 runs an event loop,
which fails in a thread that already runs one; such a caller's query runs in another thread.
"""

from __future__ import annotations

import asyncio
from concurrent.futures import ThreadPoolExecutor
from typing import Any, Callable, TypeVar

Result = TypeVar("Result")

# A netlink message: header fields by name, attributes through `get_attr`.
Message = Any


def query(fn: Callable[[Any], Result]) -> Result:
    """Call a function with an open `pyroute2.IPRoute` and return its result.

    Raises:
        OSError: No netlink socket is available.
        NetlinkError: The kernel rejects the query; its `code` is an errno value.
    """

    def run() -> Result:
        from pyroute2 import IPRoute  # slow to import

        with IPRoute() as kernel:
            return fn(kernel)

    try:
        asyncio.get_running_loop()
    except RuntimeError:
        return run()
    with ThreadPoolExecutor(max_workers=1) as executor:
        return executor.submit(run).result()


def interface_names(kernel: Any) -> dict[int, str]:
    """Return interface index to name, for every link in this network namespace."""
    return {link["index"]: link.get_attr("IFLA_IFNAME") for link in kernel.get_links()}
