"""The ctypes face of the native library, libappliance.so: loading, answering, reading.

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

from appliance.answer import RawJSON, Source
from appliance.journal import Call, Counts, GILProbes

ROOT = Path(__file__).resolve().parent.parent
SOURCES: tuple[Source, ...] = ("none", "scripted", "recorded", "live")


class Form(IntEnum):
    """What a service hands back; `enum appliance_form`."""

    JSON = 0
    TEXT = 1
    WRAPPED = 2
    IN_PLACE = 3
    COUNT = 4
    STATUS = 5


_NUMBERS: dict[Form, tuple[Any, str]] = {
    Form.COUNT: (ctypes.c_ulong, "unsigned long"),
    Form.STATUS: (ctypes.c_int, "int"),
}


class _Kind(IntEnum):
    NULL = 0
    TEXT = 1
    VERBATIM = 2
    NUMBER = 3


class Reply(ctypes.Structure):
    """`struct appliance_reply`: an answer on its way to the library, which copies it."""

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
    "appliance_open": (ctypes.c_int, (_Callback, ctypes.c_int)),
    "appliance_close": (None, ()),
    "appliance_service": (ctypes.c_char_p, (ctypes.c_size_t, ctypes.POINTER(ctypes.c_int))),
    "appliance_answer": (ctypes.c_char_p, (ctypes.POINTER(Reply),)),
    "appliance_can": (ctypes.c_char_p, (ctypes.c_size_t, ctypes.POINTER(Reply))),
    "appliance_uncan": (None, (ctypes.c_size_t,)),
    "appliance_canned_calls": (ctypes.c_ulong, (ctypes.c_size_t,)),
    "appliance_canned_misfits": (ctypes.c_ulong, ()),
    "appliance_journal_size": (ctypes.c_size_t, ()),
    "appliance_journal_read": (ctypes.c_int, (ctypes.c_size_t, ctypes.POINTER(_Call))),
    "appliance_journal_forget": (None, ()),
    "appliance_count": (None, (ctypes.POINTER(_Counts),)),
    "appliance_record_serializer": (None, (ctypes.c_int,)),
    "appliance_probe_gil": (None, (ctypes.POINTER(ctypes.c_ulong), ctypes.c_uint)),
    "appliance_gil_probes": (
        None,
        (ctypes.POINTER(ctypes.c_ulong), ctypes.POINTER(ctypes.c_ulong)),
    ),
    "appliance_set_blank": (ctypes.c_char_p, (ctypes.POINTER(Reply),)),
}


def build_directory() -> Path:
    """The build in use: `build/release`, or what the environment variable APPLIANCE_BUILD names."""
    return ROOT / (os.environ.get("APPLIANCE_BUILD") or "build/release")


def made_reply(form: Form, value: object, source: Source = "scripted") -> Reply:
    """The value in the form of a service. `TypeError`, `ValueError`: it has no such form."""
    kind, text, number = _encoded(form, value)
    size = 0 if text is None else len(text)
    return Reply(kind, SOURCES.index(source), text, size, number)


def _encoded(form: Form, value: object) -> tuple[_Kind, bytes | None, int]:
    if form is Form.JSON:
        return _encoded_json(value)
    if form in _NUMBERS:
        return _Kind.NUMBER, None, _encoded_number(form, value)
    if value is None and form is not Form.WRAPPED:
        return _Kind.NULL, None, 0
    if isinstance(value, str):
        return _Kind.TEXT, value.encode(), 0
    if isinstance(value, bytes):
        return _Kind.TEXT, value, 0
    raise TypeError(f"the service answers text, not {type(value).__name__}")


def _encoded_json(value: object) -> tuple[_Kind, bytes | None, int]:
    if value is None:
        return _Kind.NULL, None, 0
    if isinstance(value, RawJSON):
        return _Kind.VERBATIM, value.encoded(), 0
    return _Kind.TEXT, json.dumps(value, ensure_ascii=False).encode(), 0


def _encoded_number(form: Form, value: object) -> int:
    if not isinstance(value, int):
        raise TypeError(f"the service answers an int, not {type(value).__name__}")
    c_type, name = _NUMBERS[form]
    if c_type(value).value != value:
        raise ValueError(f"{value} does not fit the service's C type, {name}")
    return ctypes.c_ulong(value).value


class Host:
    """The loaded library."""

    def __init__(self, build: Path) -> None:
        self.build = build
        self._library = ctypes.PyDLL(str(build / "libappliance.so"), mode=ctypes.RTLD_GLOBAL)
        for name, (result, arguments) in _FUNCTIONS.items():
            function = getattr(self._library, name)
            function.restype = result
            function.argtypes = arguments
        self.forms = dict(self._services())
        self._indices = {service: index for index, service in enumerate(self.forms)}
        self._callback: object = None  # the library calls it: kept alive here
        self._counter: object = None  # the library reads it: kept alive here

    def _services(self) -> Iterator[tuple[str, Form]]:
        form = ctypes.c_int()
        index = 0
        while name := self._library.appliance_service(index, ctypes.byref(form)):
            yield name.decode(), Form(form.value)
            index += 1

    def open(self, answer: Callable[[str, bytes | None], None], counting: bool) -> None:
        """Starts afresh; `answer(service, input)` is then called per call and must not raise."""

        def callback(service: bytes, given: bytes | None) -> None:
            answer(service.decode(), given)

        self._callback = _Callback(callback)
        if not self._library.appliance_open(self._callback, counting):
            raise MemoryError("no memory for the stand-in appliance")

    def close(self) -> None:
        """From here on services answer null, nought or empty text."""
        self._library.appliance_close()
        self._callback = self._counter = None

    def answer(self, service: str, reply: Reply) -> None:
        """Answers the call of the service that is being asked about."""
        _accepted(service, self._library.appliance_answer(reply))

    def can(self, service: str, reply: Reply) -> None:
        """Keeps a reply in the library."""
        _accepted(service, self._library.appliance_can(self._indices[service], reply))

    def uncan(self, service: str) -> None:
        """Asks Python again."""
        self._library.appliance_uncan(self._indices[service])

    def canned_calls(self, service: str) -> int:
        """Calls answered by the reply kept for the service."""
        return int(self._library.appliance_canned_calls(self._indices[service]))

    def canned_misfits(self) -> int:
        """Calls since the last question whose buffer a kept text did not fit into."""
        return int(self._library.appliance_canned_misfits())

    def set_blank(self, reply: Reply) -> None:
        """What JSONObject() holds."""
        _accepted("the blank", self._library.appliance_set_blank(reply))

    def journal(self) -> list[Call]:
        """All calls since the journal was forgotten."""
        entry = _Call()
        calls = []
        for index in range(self._library.appliance_journal_size()):
            self._library.appliance_journal_read(index, ctypes.byref(entry))
            calls.append(
                Call(
                    service=entry.service.decode(),
                    context=entry.context,
                    request=_text(entry.request),
                    third=entry.third,
                    text=entry.text,
                    source=SOURCES[entry.source],
                )
            )
        return calls

    def forget(self) -> None:
        """Empties the journal."""
        self._library.appliance_journal_forget()

    def record_serializer(self, record: bool) -> None:
        """Journals the calls of `json_object_to_json_string`, or stops to do so."""
        self._library.appliance_record_serializer(record)

    def probe_gil(self, counter: ctypes.c_ulong | None, milliseconds: int) -> None:
        """Makes native calls wait until the counter changes, for this time at most."""
        self._library.appliance_probe_gil(counter, milliseconds)
        self._counter = counter

    def gil_probes(self) -> GILProbes:
        """What the native calls saw while they waited."""
        calls, released = ctypes.c_ulong(), ctypes.c_ulong()
        self._library.appliance_gil_probes(ctypes.byref(calls), ctypes.byref(released))
        return GILProbes(calls.value, released.value)

    def counts(self) -> Counts:
        """What is alive."""
        counts = _Counts()
        self._library.appliance_count(ctypes.byref(counts))
        return Counts(counts.json_objects, counts.text_buffers)


def _text(given: bytes | None) -> str | None:
    return None if given is None else given.decode("utf-8", "surrogateescape")


def _accepted(what: str, reason: bytes | None) -> None:
    if reason is not None:
        raise ValueError(f"{what}: {reason.decode()}")


_loaded: Host | None = None


def load() -> Host:
    """The library of the build in use, loaded once per process, with the staged modules importable.

    `RuntimeError`: nothing is built, or another build was loaded before.
    """
    global _loaded
    build = build_directory()
    if _loaded is None:
        stage = build / "stage"
        if not (build / "libappliance.so").is_file() or not stage.is_dir():
            raise RuntimeError(f"the stand-in appliance is not built in {build}: run `make build`")
        _loaded = Host(build)
        sys.path.insert(0, str(stage))
    elif _loaded.build != build:
        raise RuntimeError(f"this process has loaded {_loaded.build}: start another for {build}")
    return _loaded
