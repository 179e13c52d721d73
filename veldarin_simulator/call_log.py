"""Observations of the native library: calls, live objects and probes of the interpreter lock."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import NamedTuple

from veldarin_simulator.reply import Source


@dataclass(frozen=True)
class NativeCall:
    """A call of a native service, or a method-table release of a JSONObject.

    A release has the service "JSONObject.release" and its JSON text as the request; so has a
    recorded call of "json_object_to_json_string". Pointers are `int`, null is None. Comparison
    ignores the source and the reply.
    """

    service: str
    context: int | None = None  # the first pointer, if the service takes one
    request: str | None = None  # JSON text without spaces, if the service takes a request
    third: int | None = None  # the third pointer of the capture services
    text: bytes | None = None  # the text argument up to its NUL, if the service takes one
    source: Source = field(default="none", compare=False)
    # The reply as the text of a scenario's file, if `Simulator.record_replies` recorded one.
    reply: bytes | None = field(default=None, compare=False)


class GILProbes(NamedTuple):
    """The results of probing the interpreter lock in native calls."""

    calls: int  # calls that waited
    released: int  # calls during which another Python thread ran


class LiveObjects(NamedTuple):
    """Objects that were created since the simulator was opened and are not freed yet.

    The shared json-c objects of fixed replies are not counted.
    """

    json_objects: int  # replies of services and requests of JSONObjects
    text_buffers: int  # returned by a service and not yet passed to PyMem_Free


# Entries of the call log that are not native services.
RELEASE = "JSONObject.release"
SERIALIZER = "json_object_to_json_string"


def describe_source(function: str, calls: list[NativeCall]) -> str:
    """Return where the replies to a call of a function came from.

    Returns:
        Sources joined by "+"; or "no reply", if the services had none; or "no call".
    """
    if function == "get_token":
        return "live"  # it reads a file instead of calling a native service
    called = [call for call in calls if call.service not in (RELEASE, SERIALIZER)]
    sources = sorted({call.source for call in called} - {"none"})
    return "+".join(sources) or ("no reply" if called else "no call")
