"""What the native library saw: the calls in their order, and what is alive now."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import NamedTuple

from veldarin_simulator.reply import Source


@dataclass(frozen=True)
class NativeCall:
    """One call of a native service, or one method-table release of a JSONObject.

    A release has the service "JSONObject.release", and as request the JSON text held; so has a call
    of "json_object_to_json_string", where these are recorded. Pointers are given as `int`, null as
    `None`. Two calls compare equal whatever the source of their answers.
    """

    service: str
    context: int | None = None  # the first pointer, of services that take one
    request: str | None = None  # JSON text without spaces, of services that take a request
    third: int | None = None  # the third pointer of the capture functions
    text: bytes | None = None  # of services that take a text, up to its NUL
    source: Source = field(default="none", compare=False)


class GILProbes(NamedTuple):
    """What native calls saw of the interpreter lock."""

    calls: int  # calls that waited
    released: int  # those in which another Python thread ran


class LiveObjects(NamedTuple):
    """What was made since the appliance was opened and is not freed yet.

    Canned json-c objects are shared and not counted.
    """

    json_objects: int  # json-c objects: replies of services, requests of JSONObjects
    text_buffers: int  # handed out by a service and not yet given to PyMem_Free
