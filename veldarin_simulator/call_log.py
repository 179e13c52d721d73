"""Observations of the native library: calls, live objects and probes of the interpreter lock."""

from __future__ import annotations

import json
from collections.abc import Iterable
from dataclasses import dataclass, field
from typing import Any, NamedTuple

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

    @property
    def argument(self) -> Any:
        """The request as a Python value, a command as `str`, or another text as `bytes`."""
        if self.request is not None:
            return json.loads(self.request)
        if self.text is not None and self.service == "get_cli_cmd_output":
            return self.text.decode("utf-8", "surrogateescape")
        return self.text

    def __str__(self) -> str:
        argument = "" if self.argument is None else repr(self.argument)
        return f"{self.service}({argument})"


class Calls(list[NativeCall]):
    """The calls of one native service, in order, with the assertions of `unittest.mock`.

    Args:
        service: The service.
        log: All native calls, which the message of a failing assertion lists.
    """

    def __init__(self, service: str, log: Iterable[NativeCall]) -> None:
        self._service = service
        self._log = list(log)
        super().__init__(call for call in self._log if call.service == service)

    @property
    def arguments(self) -> list[Any]:
        """The argument of each call."""
        return [call.argument for call in self]

    def assert_not_called(self) -> None:
        """Raise AssertionError if there was a call."""
        __tracebackhide__ = True
        self._check(not self, "no call")

    def assert_called_once(self) -> None:
        """Raise AssertionError unless there was exactly one call."""
        __tracebackhide__ = True
        self._check(len(self) == 1, "one call")

    def assert_called_once_with(self, argument: object) -> None:
        """Raise AssertionError unless there was exactly one call, with this argument."""
        __tracebackhide__ = True
        self._check(self.arguments == [argument], f"one call with {argument!r}")

    def assert_any_call(self, argument: object) -> None:
        """Raise AssertionError unless one of the calls had this argument."""
        __tracebackhide__ = True
        self._check(argument in self.arguments, f"a call with {argument!r}")

    def _check(self, holds: bool, expected: str) -> None:
        __tracebackhide__ = True
        if holds:
            return
        shown = [call for call in self._log if call.service != "JSONObject.release"]
        listed = "".join(
            f"\n{'>' if call.service == self._service else ' '} {call}" for call in shown
        )
        raise AssertionError(
            f"{self._service}: expected {expected}, found {len(self)} "
            f"{'call' if len(self) == 1 else 'calls'}; native calls:{listed or ' none'}"
        )


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
