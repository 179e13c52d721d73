"""What a native service is made to answer, and where the answer comes from.

For whoever answers in the appliance's place: the live and recorded answers, a scenario, a test.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import Literal

# Where an answer comes from: this machine's own state, a recording, the script of a test or a user;
# "none": nobody answers, the service hands back null, nought or empty text.
Source = Literal["live", "recorded", "scripted", "none"]


@dataclass(frozen=True)
class RawJSON:
    """The text that a json-c object shall render as, valid JSON or not.

    A `str` is taken as UTF-8; `bytes` as they are.
    """

    text: str | bytes

    def encoded(self) -> bytes:
        """The text as json-c hands it over."""
        return self.text if isinstance(self.text, bytes) else self.text.encode()


@dataclass(frozen=True)
class Reply:
    """The reply of a service, or a callable that makes it per call, with its source.

    `reply` is what `Appliance.set_reply` takes. A callable may return an `Answer` of its own, whose
    source then holds for that call.
    """

    reply: object
    source: Source = "scripted"
