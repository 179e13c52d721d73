"""ctypes bindings of libfaults, the native library of the sweep; its header is native/faults.h."""

from __future__ import annotations

import _testcapi
import ctypes
from pathlib import Path
from typing import Any, Callable, NamedTuple

from veldarin_simulator import native_library

ALLOCATORS = ("interpreter", "json-c")


class _Report(ctypes.Structure):
    _fields_ = (
        ("counted", ctypes.c_long),
        ("failed", ctypes.c_long),
        ("site", ctypes.c_char_p),
    )


class Row(ctypes.Structure):
    """`struct faults_row`: what is recorded of one fallible call."""

    _fields_ = (
        ("key", ctypes.c_char * 384),
        ("function", ctypes.c_char * 64),
        ("reached", ctypes.c_ulong),
        ("fired", ctypes.c_ulong),
        ("of_memory", ctypes.c_ulong),
        ("otherwise", ctypes.c_ulong),
        ("forced", ctypes.c_ulong),
    )


class Point(NamedTuple):
    """The allocation that fails, counted from 1, or the first of all that fail from there on."""

    allocator: str
    nth: int
    lasting: bool

    @property
    def next(self) -> Point:
        """The same of the following allocation."""
        return self._replace(nth=self.nth + 1)

    def __str__(self) -> str:
        more = " and all after it" if self.lasting else ""
        return f"{self.allocator} allocation {self.nth}{more}"


NOWHERE = Point("interpreter", 0, False)


class Report(NamedTuple):
    """What became of the last trial: allocations, how many failed, and in which call the first."""

    counted: int
    failed: int
    site: str | None


_FUNCTIONS: dict[str, tuple[Any, tuple[Any, ...]]] = {
    "faults_record_in": (ctypes.c_int, (ctypes.c_char_p,)),
    "faults_force": (ctypes.c_int, (ctypes.c_char_p,)),
    "faults_install": (ctypes.py_object, (ctypes.py_object,)),
    "faults_follow_json_c": (ctypes.c_int, ()),
    "faults_trial": (ctypes.py_object, (ctypes.py_object,) * 3 + (ctypes.c_int,) * 3),
    "faults_report_of": (None, (ctypes.POINTER(_Report),)),
    "faults_trace_into": (None, (ctypes.POINTER(ctypes.c_void_p), ctypes.c_long)),
    "faults_tell_deaths": (None, ()),
    "faults_live": (ctypes.c_long, ()),
    "faults_sheltered": (ctypes.py_object, (ctypes.py_object,)),
    "faults_shelter_type": (None, (ctypes.py_object,)),
    "faults_shelter_method_table": (None, (ctypes.py_object,)),
    "faults_shelter_callback": (ctypes.c_void_p, (ctypes.c_void_p,)),
}


class Library:
    """libfaults of the build in use, loaded before the module that records its calls there."""

    def __init__(self) -> None:
        self._path = Path()
        path = native_library.build_directory() / "libfaults.so"
        self._library = ctypes.PyDLL(str(path), mode=ctypes.RTLD_GLOBAL)
        for name, (result, arguments) in _FUNCTIONS.items():
            function = getattr(self._library, name)
            function.restype = result
            function.argtypes = arguments

    def record_in(self, path: Path) -> None:
        """Lets this process and its children add to one record."""
        if not self._library.faults_record_in(bytes(path)):
            raise OSError(f"{path} cannot hold the record")
        self._path = path

    @property
    def records(self) -> bool:
        """The build in use records the module's calls."""
        return any(row.key for row in record(self._path))

    def key(self, call: str) -> str:
        """What the record calls a call. `KeyError`: it was not reached so far."""
        for row in record(self._path):
            key: str = row.key.decode()
            if key.split(":", 2)[2] == call:
                return key
        raise KeyError(call)

    def install(self) -> None:
        """Stands before the allocators, for the rest of the process's life."""
        self._library.faults_install(_testcapi.set_nomemory)
        if not self._library.faults_follow_json_c():
            raise RuntimeError("json-c's allocations cannot be followed")

    def force(self, key: str | None) -> None:
        """Makes the call with this key fail from here on; `None`: none."""
        if not self._library.faults_force(None if key is None else key.encode()):
            raise KeyError(f"no such call was recorded so far: {key}")

    def trial(
        self,
        function: Callable[..., Any],
        arguments: tuple[Any, ...] = (),
        keywords: dict[Any, Any] | None = None,
        point: Point | None = None,
    ) -> Any:
        """The function's result or its exception, with memory failing at the point, or nowhere."""
        allocator, nth, lasting = point or NOWHERE
        return self._library.faults_trial(
            function, arguments, keywords, ALLOCATORS.index(allocator), nth, lasting
        )

    def report(self) -> Report:
        """What became of the last trial."""
        report = _Report()
        self._library.faults_report_of(ctypes.byref(report))
        site = None if report.site is None else report.site.decode()
        return Report(report.counted, report.failed, site)

    def traced(self, call: Callable[[], object], size: int = 10_000) -> list[int | None]:
        """The fallible call that was under way at each allocation of a trial, by some number."""
        rows = (ctypes.c_void_p * size)()
        self._library.faults_trace_into(rows, size)
        call()
        self._library.faults_trace_into(None, 0)
        return list(rows[: self.report().counted])

    def tell_deaths(self) -> None:
        """From here on a process that dies tells where, for deaths.py."""
        self._library.faults_tell_deaths()

    def live(self) -> int:
        """Blocks made minus blocks freed."""
        return int(self._library.faults_live())

    def sheltered(self, function: Callable[..., Any]) -> Callable[..., Any]:
        """A callable of somebody else's: within it no allocation fails, but the call itself may."""
        made: Callable[..., Any] = self._library.faults_sheltered(function)
        return made

    def shelter_json_objects(self) -> None:
        """The same for making JSONObjects and for their C-level release."""
        from util.json import JSONObject

        self._library.faults_shelter_type(JSONObject)
        self._library.faults_shelter_method_table(vars(JSONObject)["__pyx_vtable__"])

    def shelter_services(self) -> None:
        """The same for what answers the native services, from the next appliance on."""
        made = native_library._Callback

        def sheltered(function: Callable[..., None]) -> Any:
            inner = made(function)
            address = ctypes.cast(inner, ctypes.c_void_p).value
            outer: Any = made(self._library.faults_shelter_callback(address))
            outer.inner = inner  # lives as long as the one that calls it
            return outer

        native_library._Callback = sheltered  # type: ignore[assignment]


def record(path: Path) -> list[Row]:
    """The rows of a record, one for each call that was reached; those of one call are added up."""
    data = path.read_bytes()
    rows: dict[bytes, Row] = {}
    for at in range(0, len(data) - ctypes.sizeof(Row) + 1, ctypes.sizeof(Row)):
        row = Row.from_buffer_copy(data, at)
        if not row.key:
            continue
        if row.key in rows:
            known = rows[row.key]
            for name, _kind in Row._fields_[2:]:
                setattr(known, name, getattr(known, name) + getattr(row, name))
        else:
            rows[row.key] = row
    return list(rows.values())
