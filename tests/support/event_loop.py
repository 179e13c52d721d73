"""Runs coroutines in a thread of its own, as the main thread may run the loop of browser tests."""

from __future__ import annotations

import asyncio
from collections.abc import Coroutine
from concurrent.futures import ThreadPoolExecutor
from typing import Any


def run(coroutine: Coroutine[Any, Any, Any]) -> Any:
    """Return the result of a coroutine."""
    with ThreadPoolExecutor(1) as pool:
        return pool.submit(asyncio.run, coroutine).result()
