"""The ctypes face of the native library, libsimulator.so: loading, answering, reading.

Everything runs with the interpreter lock held (`PyDLL`, `PYFUNCTYPE`), as the management process
calls its services. For `Appliance` only; nobody else talks to the library.
"""

from __future__ import annotations

import ctypes
import json
import os
import sys
from collections.abc import Callable, Iterator
from enum import IntEnum
from pathlib import Path
from typing import Any

from veldarin_simulator.call_log import GILProbes, LiveObjects, NativeCall
from veldarin_simulator.reply import RawJSON, Source

ROOT = Path(__file__).resolve().parent.parent
SOURCES: tuple[Source, ...] = ("none", "scripted", "recorded", "live")


class ReplyForm(IntEnum):
    """What a service hands back; `enum simulator_form`."""

    JSON = 0
    TEXT = 1
    WRAPPED = 2
    IN_PLACE = 3
    COUNT = 4
    STATUS = 5


_NUMBERS: dict[ReplyForm, tuple[Any, str]] = {
    ReplyForm.COUNT: (ctypes.c_ulong, "unsigned long"),
    ReplyForm.STATUS: (ctypes.c_int, "int"),
}


class ReplyKind(IntEnum):
    NULL = 0
    TEXT = 1
    VERBATIM = 2
    NUMBER = 3


class EncodedReply(ctypes.Structure):
    """`struct simulator_reply`: an answer on its way to the library, which copies it."""

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


class _Counts(ctypes.Structure):
    _fields_ = (("json_objects", ctypes.c_long), ("text_buffers", ctypes.c_long))


_Callback = ctypes.PYFUNCTYPE(None, ctypes.c_char_p, ctypes.c_char_p)

# Functions of the library: result type (None: nothing), argument types.
_FUNCTIONS: dict[str, tuple[Any, tuple[Any, ...]]] = {
    "simulator_open": (ctypes.c_int, (_Callback, ctypes.c_int)),
    "simulator_close": (None, ()),
    "simulator_service": (ctypes.c_char_p, (ctypes.c_size_t, ctypes.POINTER(ctypes.c_int))),
    "simulator_answer": (ctypes.c_char_p, (ctypes.POINTER(EncodedReply),)),
    "simulator_can": (ctypes.c_char_p, (ctypes.c_size_t, ctypes.POINTER(EncodedReply))),
    "simulator_uncan": (None, (ctypes.c_size_t,)),
    "simulator_canned_calls": (ctypes.c_ulong, (ctypes.c_size_t,)),
    "simulator_canned_misfits": (ctypes.c_ulong, ()),
    "simulator_journal_size": (ctypes.c_size_t, ()),
    "simulator_journal_read": (ctypes.c_int, (ctypes.c_size_t, ctypes.POINTER(_Call))),
    "simulator_journal_forget": (None, ()),
    "simulator_count": (None, (ctypes.POINTER(_Counts),)),
    "simulator_record_serializer": (None, (ctypes.c_int,)),
    "simulator_probe_gil": (None, (ctypes.POINTER(ctypes.c_ulong), ctypes.c_uint)),
    "simulator_gil_probes": (
        None,
        (ctypes.POINTER(ctypes.c_ulong), ctypes.POINTER(ctypes.c_ulong)),
    ),
    "simulator_set_blank": (ctypes.c_char_p, (ctypes.POINTER(EncodedReply),)),
}


def build_directory() -> Path:
    """The build in use: `build/release`, or the value of the environment's MODULES_UTIL_BUILD."""
    return ROOT / (os.environ.get("MODULES_UTIL_BUILD") or "build/release")


def encode_reply(form: ReplyForm, value: object, source: Source = "scripted") -> EncodedReply:
    """The value in the form of a service. `TypeError`, `ValueError`: it has no such form."""
    kind, text, number = _encoded(form, value)
    size = 0 if text is None else len(text)
    return EncodedReply(kind, SOURCES.index(source), text, size, number)


def _encoded(form: ReplyForm, value: object) -> tuple[ReplyKind, bytes | None, int]:
    if form is ReplyForm.JSON:
        return _encoded_json(value)
    if form in _NUMBERS:
        return ReplyKind.NUMBER, None, _encoded_number(form, value)
    if value is None and form is not ReplyForm.WRAPPED:
        return ReplyKind.NULL, None, 0
    if isinstance(value, str):
        return ReplyKind.TEXT, value.encode(), 0
    if isinstance(value, bytes):
        return ReplyKind.TEXT, value, 0
    raise TypeError(f"the service answers text, not {type(value).__name__}")


def _encoded_json(value: object) -> tuple[ReplyKind, bytes | None, int]:
    if value is None:
        return ReplyKind.NULL, None, 0
    if isinstance(value, RawJSON):
        return ReplyKind.VERBATIM, value.encoded(), 0
    return ReplyKind.TEXT, json.dumps(value, ensure_ascii=False).encode(), 0


def _encoded_number(form: ReplyForm, value: object) -> int:
    if not isinstance(value, int):
        raise TypeError(f"the service answers an int, not {type(value).__name__}")
    c_type, name = _NUMBERS[form]
    if c_type(value).value != value:
        raise ValueError(f"{value} does not fit the service's C type, {name}")
    return ctypes.c_ulong(value).value


class NativeLibrary:
    """The loaded library."""

    def __init__(self, build: Path) -> None:
        self.build = build
        self._library = ctypes.PyDLL(str(build / "libsimulator.so"), mode=ctypes.RTLD_GLOBAL)
        for name, (result, arguments) in _FUNCTIONS.items():
            function = getattr(self._library, name)
            function.restype = result
            function.argtypes = arguments
        self.forms = dict(self._services())
        self._indices = {service: index for index, service in enumerate(self.forms)}
        self._callback: object = None  # the library calls it: kept alive here
        self._counter: object = None  # the library reads it: kept alive here

    def _services(self) -> Iterator[tuple[str, ReplyForm]]:
        form = ctypes.c_int()
        index = 0
        while name := self._library.simulator_service(index, ctypes.byref(form)):
            yield name.decode(), ReplyForm(form.value)
            index += 1

    def open(self, answer: Callable[[str, bytes | None], None], track_buffers: bool) -> None:
        """Starts afresh; `answer(service, input)` is then called per call and must not raise."""

        def callback(service: bytes, given: bytes | None) -> None:
            answer(service.decode(), given)

        self._callback = _Callback(callback)
        if not self._library.simulator_open(self._callback, track_buffers):
            raise MemoryError("no memory for the stand-in appliance")

    def close(self) -> None:
        """From here on services answer null, nought or empty text."""
        self._library.simulator_close()
        self._callback = self._counter = None

    def set_reply(self, service: str, reply: EncodedReply) -> None:
        """Answers the call of the service that is being asked about."""
        _accepted(service, self._library.simulator_answer(reply))

    def set_fixed_reply(self, service: str, reply: EncodedReply) -> None:
        """Keeps a reply in the library."""
        _accepted(service, self._library.simulator_can(self._indices[service], reply))

    def clear_fixed_reply(self, service: str) -> None:
        """Asks Python again."""
        self._library.simulator_uncan(self._indices[service])

    def fixed_reply_calls(self, service: str) -> int:
        """Calls answered by the reply kept for the service."""
        return int(self._library.simulator_canned_calls(self._indices[service]))

    def oversized_replies(self) -> int:
        """Calls since the last question whose buffer a kept text did not fit into."""
        return int(self._library.simulator_canned_misfits())

    def set_blank(self, reply: EncodedReply) -> None:
        """What JSONObject() holds."""
        _accepted("the blank", self._library.simulator_set_blank(reply))

    def call_log(self) -> list[NativeCall]:
        """All calls since the journal was forgotten."""
        entry = _Call()
        calls = []
        for index in range(self._library.simulator_journal_size()):
            self._library.simulator_journal_read(index, ctypes.byref(entry))
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
        """Empties the journal."""
        self._library.simulator_journal_forget()

    def record_serializer(self, record: bool) -> None:
        """Journals the calls of `json_object_to_json_string`, or stops to do so."""
        self._library.simulator_record_serializer(record)

    def probe_gil(self, counter: ctypes.c_ulong | None, milliseconds: int) -> None:
        """Makes native calls wait until the counter changes, for this time at most."""
        self._library.simulator_probe_gil(counter, milliseconds)
        self._counter = counter

    def gil_probes(self) -> GILProbes:
        """What the native calls saw while they waited."""
        calls, released = ctypes.c_ulong(), ctypes.c_ulong()
        self._library.simulator_gil_probes(ctypes.byref(calls), ctypes.byref(released))
        return GILProbes(calls.value, released.value)

    def live_objects(self) -> LiveObjects:
        """What is alive."""
        counts = _Counts()
        self._library.simulator_count(ctypes.byref(counts))
        return LiveObjects(counts.json_objects, counts.text_buffers)


def _text(given: bytes | None) -> str | None:
    return None if given is None else given.decode("utf-8", "surrogateescape")


def _accepted(what: str, reason: bytes | None) -> None:
    if reason is not None:
        raise ValueError(f"{what}: {reason.decode()}")


_loaded: NativeLibrary | None = None


def load() -> NativeLibrary:
    """The library of the build in use, loaded once per process, with the staged modules importable.

    `RuntimeError`: nothing is built, or another build was loaded before.
    """
    global _loaded
    build = build_directory()
    if _loaded is None:
        stage = build / "stage"
        if not (build / "libsimulator.so").is_file() or not stage.is_dir():
            raise RuntimeError(f"the stand-in appliance is not built in {build}: run `make build`")
        _loaded = NativeLibrary(build)
        sys.path.insert(0, str(stage))
    elif _loaded.build != build:
        raise RuntimeError(f"this process has loaded {_loaded.build}: start another for {build}")
    return _loaded
