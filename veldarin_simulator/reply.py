"""The reply of a native service, and its source."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Literal

# This machine's state, a recording, or the script of a test or user; "none": no reply is set, and
# the service returns null, 0 or "".
Source = Literal["live", "recorded", "scripted", "none"]


@dataclass(frozen=True)
class RawJSON:
    """The text that a json-c object renders as, valid JSON or not.

    Args:
        text: A `str` is encoded as UTF-8; `bytes` count as they are.
    """

    text: str | bytes

    def encoded(self) -> bytes:
        """Return the text that json-c renders."""
        return self.text if isinstance(self.text, bytes) else self.text.encode()


@dataclass(frozen=True)
class Reply:
    """The reply of a service with its source.

    Args:
        reply: A value or a callable, as `Simulator.set_reply` takes it. A callable may return a
            `Reply`, whose source then holds for that call.
        source: The source.
    """

    reply: object
    source: Source = "scripted"
