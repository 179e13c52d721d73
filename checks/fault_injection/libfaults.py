"""ctypes bindings of libfaults, which native/faults.h documents."""

from __future__ import annotations

import _testcapi
import ctypes
from pathlib import Path
from typing import Any, Callable, NamedTuple

from veldarin_simulator import native_library

ALLOCATORS = ("interpreter", "json-c")
NO_SITE = "no fallible call"  # in a native service, or in the interpreter before the function


class Report(ctypes.Structure):
    """`struct faults_report`: the last call's allocations, and where the first one failed."""

    _fields_ = (
        ("allocations", ctypes.c_long),
        ("failures", ctypes.c_long),
        ("_site", ctypes.c_char_p),
    )

    @property
    def site(self) -> str:
        """The key of the fallible call, or `NO_SITE`."""
        return self._site.decode() if self._site else NO_SITE


class Row(ctypes.Structure):
    """`struct faults_row`: the log's row of a call site."""

    _fields_ = (
        ("key", ctypes.c_char * 384),
        ("function", ctypes.c_char * 64),
        ("reached", ctypes.c_ulong),
        ("triggered", ctypes.c_ulong),
        ("oom", ctypes.c_ulong),
        ("other", ctypes.c_ulong),
        ("forced", ctypes.c_ulong),
    )


class InjectionPoint(NamedTuple):
    """The allocation that fails, counted from 1; a persistent failure includes all later ones."""

    allocator: str
    nth: int
    persistent: bool

    @property
    def next(self) -> InjectionPoint:
        """The point of the next allocation."""
        return self._replace(nth=self.nth + 1)

    def __str__(self) -> str:
        mode = "persistent" if self.persistent else "one-shot"
        return f"{self.allocator} allocation {self.nth}, {mode}"


NO_FAILURE = InjectionPoint("interpreter", 0, False)


_FUNCTIONS: dict[str, tuple[Any, tuple[Any, ...]]] = {
    "faults_open_log": (ctypes.c_int, (ctypes.c_char_p,)),
    "faults_force": (ctypes.c_int, (ctypes.c_char_p,)),
    "faults_install": (ctypes.py_object, (ctypes.py_object,)),
    "faults_hook_json_c": (ctypes.c_int, ()),
    "faults_call": (ctypes.py_object, (ctypes.py_object,) * 3 + (ctypes.c_int,) * 3),
    "faults_get_report": (None, (ctypes.POINTER(Report),)),
    "faults_trace_into": (None, (ctypes.POINTER(ctypes.c_void_p), ctypes.c_long)),
    "faults_install_crash_handler": (None, ()),
    "faults_live_blocks": (ctypes.c_long, ()),
    "faults_exempt": (ctypes.py_object, (ctypes.py_object,)),
    "faults_exempt_type": (None, (ctypes.py_object,)),
    "faults_exempt_vtable": (None, (ctypes.py_object,)),
    "faults_exempt_callback": (ctypes.c_void_p, (ctypes.c_void_p,)),
}


class FaultInjector:
    """libfaults of the current build. Load it before the module, which logs its calls there."""

    def __init__(self) -> None:
        self._log = Path()
        path = native_library.build_directory() / "libfaults.so"
        self._library = ctypes.PyDLL(str(path), mode=ctypes.RTLD_GLOBAL)
        for name, (result, arguments) in _FUNCTIONS.items():
            function = getattr(self._library, name)
            function.restype = result
            function.argtypes = arguments
        self.install_crash_handler: Callable[[], None] = self._library.faults_install_crash_handler
        self.live_blocks: Callable[[], int] = self._library.faults_live_blocks
        # Suspends injection while a callable runs; the call itself can fail.
        self.exempt: Callable[[Callable[..., Any]], Callable[..., Any]] = (
            self._library.faults_exempt
        )

    def open_log(self, path: Path) -> None:
        """Share one call-site log between this process and its children."""
        if not self._library.faults_open_log(bytes(path)):
            raise OSError(f"cannot map the call-site log {path}")
        self._log = path

    def has_log(self) -> bool:
        """Tell whether the module of this build logs its calls."""
        return bool(read_log(self._log))

    def find_key(self, call: str) -> str:
        """Return the key of a call that has been reached; raise `KeyError` for any other."""
        for row in read_log(self._log):
            key: str = row.key.decode()
            if key.split(":", 2)[2] == call:
                return key
        raise KeyError(call)

    def install(self) -> None:
        """Hook the allocators for the rest of the process."""
        self._library.faults_install(_testcapi.set_nomemory)
        if not self._library.faults_hook_json_c():
            raise RuntimeError("cannot hook the allocations of json-c")

    def force(self, key: str | None) -> None:
        """Force the call with this key to fail from now on; `None` forces none."""
        if not self._library.faults_force(None if key is None else key.encode()):
            raise KeyError(f"the call has not been reached: {key}")

    def call(
        self,
        function: Callable[..., Any],
        arguments: tuple[Any, ...] = (),
        keywords: dict[Any, Any] | None = None,
        point: InjectionPoint = NO_FAILURE,
    ) -> Any:
        """Call the function under test with a failure injected at the point."""
        allocator, nth, persistent = point
        return self._library.faults_call(
            function, arguments, keywords, ALLOCATORS.index(allocator), nth, persistent
        )

    def report(self) -> Report:
        """Return the report of the last call."""
        report = Report()
        self._library.faults_get_report(ctypes.byref(report))
        return report

    def trace(self, run: Callable[[], object], size: int = 10_000) -> list[int | None]:
        """Return the innermost fallible call, by address, at each allocation of a run."""
        rows = (ctypes.c_void_p * size)()
        self._library.faults_trace_into(rows, size)
        run()
        self._library.faults_trace_into(None, 0)
        return list(rows[: self.report().allocations])

    def exempt_json_objects(self) -> None:
        """Exempt the creation of a JSONObject and its C-level release."""
        from util.json import JSONObject

        self._library.faults_exempt_type(JSONObject)
        self._library.faults_exempt_vtable(vars(JSONObject)["__pyx_vtable__"])

    def exempt_providers(self) -> None:
        """Exempt the reply providers of simulators created from now on."""
        make_callback = native_library._Callback

        def make_exempt(function: Callable[..., None]) -> Any:
            inner = make_callback(function)
            address = ctypes.cast(inner, ctypes.c_void_p).value
            outer: Any = make_callback(self._library.faults_exempt_callback(address))
            outer.inner = inner  # keeps it alive
            return outer

        native_library._Callback = make_exempt  # type: ignore[assignment]


def read_log(path: Path) -> list[Row]:
    """Read the log's rows and add up those of the same call."""
    data = path.read_bytes()
    rows: dict[bytes, Row] = {}
    for offset in range(0, len(data) - ctypes.sizeof(Row) + 1, ctypes.sizeof(Row)):
        row = Row.from_buffer_copy(data, offset)
        if row.key in rows:
            for name, _kind in Row._fields_[2:]:
                total = getattr(rows[row.key], name) + getattr(row, name)
                setattr(rows[row.key], name, total)
        elif row.key:
            rows[row.key] = row
    return list(rows.values())
