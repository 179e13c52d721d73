"""The ctypes bindings of the native library, libsimulator.so.

All calls hold the interpreter lock (`PyDLL`, `PYFUNCTYPE`), as the management process does when it
calls the native services. Only `Simulator` uses the bindings.
"""

from __future__ import annotations

import ctypes
import json
import os
import re
import sys
from collections.abc import Callable, Iterator, Sequence
from enum import IntEnum
from importlib.machinery import ModuleSpec, PathFinder
from pathlib import Path
from types import ModuleType
from typing import Any

from veldarin_simulator.call_log import GILProbes, LiveObjects, NativeCall
from veldarin_simulator.reply import RawJSON, Source

ROOT = Path(__file__).resolve().parent.parent
# What the wheel installs has the layout of a build: libsimulator.so and the import root stage/.
INSTALLED = Path(__file__).resolve().parent / "_native"
SOURCES: tuple[Source, ...] = ("none", "scripted", "recorded", "live")


# The form of a service's result: `enum simulator_form`.
ReplyForm = IntEnum("ReplyForm", "JSON TEXT WRAPPED IN_PLACE COUNT STATUS", start=0)
# `enum simulator_reply_kind`.
ReplyKind = IntEnum("ReplyKind", "NULL TEXT VERBATIM NUMBER", start=0)

_LONG_NUMBER = re.compile(rb"\d{19}")

_NUMBERS: dict[ReplyForm, tuple[Any, str]] = {
    ReplyForm.COUNT: (ctypes.c_ulong, "unsigned long"),
    ReplyForm.STATUS: (ctypes.c_int, "int"),
}


class EncodedReply(ctypes.Structure):
    """`struct simulator_reply`."""

    _fields_ = (
        ("kind", ctypes.c_int),
        ("source", ctypes.c_int),
        ("text", ctypes.c_char_p),
        ("length", ctypes.c_size_t),
        ("number", ctypes.c_ulong),
    )


class _Call(ctypes.Structure):
    _fields_ = (
        ("service", ctypes.c_char_p),
        ("context", ctypes.c_void_p),
        ("third", ctypes.c_void_p),
        ("request", ctypes.c_char_p),
        ("text", ctypes.c_char_p),
        ("source", ctypes.c_int),
    )


class _LiveCounts(ctypes.Structure):
    _fields_ = (("json_objects", ctypes.c_long), ("text_buffers", ctypes.c_long))


_Callback = ctypes.PYFUNCTYPE(None, ctypes.c_char_p, ctypes.c_char_p)
_Reply = ctypes.POINTER(EncodedReply)
_Number = ctypes.POINTER(ctypes.c_ulong)

# Function of the library: result type (None: void), argument types.
_FUNCTIONS: dict[str, tuple[Any, tuple[Any, ...]]] = {
    "simulator_open": (ctypes.c_int, (_Callback, ctypes.c_int)),
    "simulator_close": (None, ()),
    "simulator_service": (ctypes.c_char_p, (ctypes.c_size_t, ctypes.POINTER(ctypes.c_int))),
    "simulator_set_reply": (ctypes.c_char_p, (_Reply,)),
    "simulator_set_fixed_reply": (ctypes.c_char_p, (ctypes.c_size_t, _Reply)),
    "simulator_clear_fixed_reply": (None, (ctypes.c_size_t,)),
    "simulator_fixed_reply_calls": (ctypes.c_ulong, (ctypes.c_size_t,)),
    "simulator_oversized_replies": (ctypes.c_ulong, ()),
    "simulator_set_delay": (None, (ctypes.c_size_t, ctypes.c_ulonglong)),
    "simulator_call_log_size": (ctypes.c_size_t, ()),
    "simulator_call_log_read": (ctypes.c_int, (ctypes.c_size_t, ctypes.POINTER(_Call))),
    "simulator_clear_calls": (None, ()),
    "simulator_live_objects": (None, (ctypes.POINTER(_LiveCounts),)),
    "simulator_record_serializer": (None, (ctypes.c_int,)),
    "simulator_probe_gil": (None, (_Number, ctypes.c_uint)),
    "simulator_gil_probes": (None, (_Number, _Number)),
    "simulator_set_default_response": (ctypes.c_char_p, (_Reply,)),
}


def is_installed() -> bool:
    """Return whether the simulator comes from a wheel, not from a checkout."""
    return INSTALLED.is_dir()


def build_directory() -> Path:
    """Return the build in use: the wheel's; in a checkout $MODULES_UTIL_BUILD, or build/release."""
    if is_installed():
        return INSTALLED
    return ROOT / (os.environ.get("MODULES_UTIL_BUILD") or "build/release")


def encode_reply(form: ReplyForm, value: object, source: Source = "scripted") -> EncodedReply:
    """Return a value in the form of a service.

    Raises:
        TypeError, ValueError: A service of this form cannot return the value.
    """
    kind, text, number = _encode(form, value)
    size = 0 if text is None else len(text)
    return EncodedReply(kind, SOURCES.index(source), text, size, number)


def _encode(form: ReplyForm, value: object) -> tuple[ReplyKind, bytes | None, int]:
    if form in _NUMBERS:
        return ReplyKind.NUMBER, None, _encode_number(form, value)
    if value is None and form is not ReplyForm.WRAPPED:
        return ReplyKind.NULL, None, 0
    if form is ReplyForm.JSON:
        if isinstance(value, RawJSON):
            return ReplyKind.VERBATIM, value.encoded(), 0
        text = json.dumps(value, ensure_ascii=False).encode()
        # json-c would replace an integer of more than 64 bits with the nearest one of 64 bits.
        return (ReplyKind.VERBATIM if _LONG_NUMBER.search(text) else ReplyKind.TEXT), text, 0
    if isinstance(value, (bytes, str)):
        return ReplyKind.TEXT, value.encode() if isinstance(value, str) else value, 0
    raise TypeError(f"the service returns text, not {type(value).__name__}")


def scenario_text(form: ReplyForm, reply: EncodedReply) -> bytes | None:
    """Return a reply as the text of a scenario's file, or None if no file can hold it."""
    if reply.kind == ReplyKind.NUMBER:
        return str(_NUMBERS[form][0](reply.number).value).encode()
    text: bytes | None = reply.text
    if form is ReplyForm.JSON:
        return text or b"null"
    if form is ReplyForm.TEXT or text is None:
        return text  # the output of a command
    try:
        return json.dumps(text.decode()).encode()
    except UnicodeDecodeError:
        return None


def _encode_number(form: ReplyForm, value: object) -> int:
    if not isinstance(value, int):
        raise TypeError(f"the service returns an int, not {type(value).__name__}")
    c_type, name = _NUMBERS[form]
    if c_type(value).value != value:
        raise ValueError(f"{value} does not fit the service's C type, {name}")
    return ctypes.c_ulong(value).value


class NativeLibrary:
    """The loaded library; `forms` maps each service to the form of its reply."""

    def __init__(self, build: Path) -> None:
        self.build = build
        self._library = ctypes.PyDLL(str(build / "libsimulator.so"), mode=ctypes.RTLD_GLOBAL)
        for name, (result, arguments) in _FUNCTIONS.items():
            function = getattr(self._library, name)
            function.restype = result
            function.argtypes = arguments
        self.forms = dict(self._services())
        self._indices = {service: index for index, service in enumerate(self.forms)}
        self._callback: object = None  # a reference, because the library calls it
        self._counter: object = None  # a reference, because the library reads it

    def _services(self) -> Iterator[tuple[str, ReplyForm]]:
        form = ctypes.c_int()
        index = 0
        while name := self._library.simulator_service(index, ctypes.byref(form)):
            yield name.decode(), ReplyForm(form.value)
            index += 1

    def open(self, reply: Callable[[str, bytes | None], None], track_buffers: bool) -> None:
        """Reset the library. Calls run `reply(service, input)`, which must not raise."""

        def callback(service: bytes, given: bytes | None) -> None:
            reply(service.decode(), given)

        self._callback = _Callback(callback)
        if not self._library.simulator_open(self._callback, track_buffers):
            raise MemoryError("no memory for the simulator")

    def close(self) -> None:
        """Make all services return null, 0 or ""."""
        self._library.simulator_close()
        self._callback = self._counter = None

    def set_reply(self, service: str, reply: EncodedReply) -> None:
        """Set the reply of the pending call."""
        _check(service, self._library.simulator_set_reply(reply))

    def set_fixed_reply(self, service: str, reply: EncodedReply) -> None:
        """Set the reply of a service that its calls return without the callback."""
        _check(service, self._library.simulator_set_fixed_reply(self._indices[service], reply))

    def clear_fixed_reply(self, service: str) -> None:
        """Make calls of the service run the callback again."""
        self._library.simulator_clear_fixed_reply(self._indices[service])

    def fixed_reply_calls(self, service: str) -> int:
        """Return the number of calls that returned the fixed reply."""
        return int(self._library.simulator_fixed_reply_calls(self._indices[service]))

    def set_delay(self, service: str, microseconds: int) -> None:
        """Make each call of a service sleep first; 0 ends that."""
        self._library.simulator_set_delay(self._indices[service], microseconds)

    def oversized_replies(self) -> int:
        """Return and reset the number of calls whose buffer was too small for a fixed reply."""
        return int(self._library.simulator_oversized_replies())

    def set_default_response(self, reply: EncodedReply) -> None:
        """Set the value of `JSONObject()`."""
        _check("default response", self._library.simulator_set_default_response(reply))

    def call_log(self) -> list[NativeCall]:
        """Return the calls since the log was cleared."""
        entry = _Call()
        calls = []
        for index in range(self._library.simulator_call_log_size()):
            self._library.simulator_call_log_read(index, ctypes.byref(entry))
            calls.append(
                NativeCall(
                    service=entry.service.decode(),
                    context=entry.context,
                    request=_text(entry.request),
                    third=entry.third,
                    text=entry.text,
                    source=SOURCES[entry.source],
                )
            )
        return calls

    def clear_calls(self) -> None:
        """Clear the call log."""
        self._library.simulator_clear_calls()

    def record_serializer(self, record: bool) -> None:
        """Log the calls of `json_object_to_json_string`, or stop logging them."""
        self._library.simulator_record_serializer(record)

    def probe_gil(self, counter: ctypes.c_ulong | None, milliseconds: int) -> None:
        """Make native calls wait until the counter changes, for at most this time."""
        self._library.simulator_probe_gil(counter, milliseconds)
        self._counter = counter

    def gil_probes(self) -> GILProbes:
        """Return the counts of the native calls that waited."""
        calls, released = ctypes.c_ulong(), ctypes.c_ulong()
        self._library.simulator_gil_probes(ctypes.byref(calls), ctypes.byref(released))
        return GILProbes(calls.value, released.value)

    def live_objects(self) -> LiveObjects:
        """Return the numbers of live objects."""
        counts = _LiveCounts()
        self._library.simulator_live_objects(ctypes.byref(counts))
        return LiveObjects(counts.json_objects, counts.text_buffers)


def _text(request: bytes | None) -> str | None:
    return None if request is None else request.decode("utf-8", "surrogateescape")


def _check(what: str, reason: bytes | None) -> None:
    if reason is not None:
        raise ValueError(f"{what}: {reason.decode()}")


class _StageFinder:
    """Finds the modules of an import root that no other finder has found.

    A project may have packages of the same names (`veldarin`, `util`): its own modules come first,
    and this finder adds what they lack.
    """

    def __init__(self, stage: Path) -> None:
        self._stage = stage
        self._packages = {entry.name for entry in stage.iterdir()}

    def find_spec(
        self, name: str, path: Sequence[str] | None = None, target: ModuleType | None = None
    ) -> ModuleSpec | None:
        """Return the spec of a module below the import root, or None."""
        package, *_ = folders = name.split(".")
        if package not in self._packages:
            return None
        return PathFinder.find_spec(name, [str(self._stage.joinpath(*folders[:-1]))])


_loaded: NativeLibrary | None = None


def load() -> NativeLibrary:
    """Load the library of the build in use and make the staged modules importable.

    The modules of a wheel come after everything on `sys.path`, those of a build before it.

    Raises:
        RuntimeError: Nothing is built, or this process has loaded another build.
    """
    global _loaded
    build = build_directory()
    if _loaded is None:
        stage = build / "stage"
        if not (build / "libsimulator.so").is_file() or not stage.is_dir():
            raise RuntimeError(f"the simulator is not built in {build}: run `make build`")
        _loaded = NativeLibrary(build)
        if is_installed():
            sys.meta_path.append(_StageFinder(stage))
        else:
            sys.path.insert(0, str(stage))
    elif _loaded.build != build:
        raise RuntimeError(f"this process has loaded {_loaded.build}: start another for {build}")
    return _loaded
