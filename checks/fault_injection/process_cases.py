"""Cases that need a process of their own, because their preparation cannot be undone."""

from __future__ import annotations

import ctypes
import sys
from functools import partial
from typing import Any, Callable, NamedTuple

from tests.support.call_cases import ARP, ONE_SESSION, ROUTING, CallCase
from tests.support.doubles import Failure, UncomparableStr, failing_open


class ProcessCase(NamedTuple):
    """A case with a preparation of the module.

    With `handling`, the caller is handling an exception: then the interpreter normalizes a new
    exception immediately, which allocates.
    """

    case: CallCase
    prepare: Callable[[Any], object] = lambda module: None
    handling: bool = False

    @property
    def function(self) -> str:
        """The function that is called."""
        return self.case.function

    def __str__(self) -> str:
        return f"{self.case}{' while handling' * self.handling}"


class PerCall:
    """An argument to create for each call."""

    def __init__(self, make: Callable[..., object], *arguments: object) -> None:
        self.make = partial(make, *arguments)


def legacy_string(text: str) -> str:
    """Create a legacy string, which is not ready."""
    create, buffer_of = ctypes.pythonapi.PyUnicode_FromUnicode, ctypes.pythonapi.PyUnicode_AsUnicode
    create.restype, create.argtypes = ctypes.py_object, [ctypes.c_void_p, ctypes.c_ssize_t]
    buffer_of.restype, buffer_of.argtypes = ctypes.c_void_p, [ctypes.py_object]
    string: str = create(None, len(text))
    ctypes.memmove(buffer_of(string), ctypes.create_unicode_buffer(text), 4 * len(text))
    return string


def ready_legacy_string(text: str) -> str:
    """Create a legacy string that is ready; its data lies in a separate block."""
    string = legacy_string(text)
    len(string + "more")
    return string


def legacy_output(text: str) -> dict[str, Any]:
    """Return the globals for a command runner that returns a legacy string."""
    return {"get_cli_command_output": lambda command: legacy_string(text)}


def break_lookup(name: str) -> Callable[[Any], None]:
    """Return a function that replaces a global name with a key that cannot be compared."""

    def prepare(module: Any) -> None:
        names = vars(module)
        names[UncomparableStr(name)] = names.pop(name)

    return prepare


LEGACY = "legacy string"
CASES = [
    *(
        ProcessCase(
            CallCase("get_cookie_name", (1,), Failure, f"lookup of {name} fails"),
            break_lookup(name),
        )
        for name in ("text_", "serial_number_ascii")
    ),
    *(
        ProcessCase(CallCase("decrypt_cookie", (bytes(size),), OverflowError, "longer than int"))
        for size in (2**31,)
        if size < sys.maxsize  # only on 64-bit platforms
    ),
    *(
        ProcessCase(CallCase(function, arguments, None, label, patched=legacy_output(text)))
        for function, arguments, label, text in (
            ("get_system_arp_result", (), LEGACY, ARP),
            ("get_routing_table_result", ("a",), LEGACY, ROUTING),
            (
                "get_routing_table_result",
                ("a",),
                f"{LEGACY} without \\r",
                ROUTING.replace("\r", ""),
            ),
            ("get_bfd_neighbor", ("c", {}), LEGACY, ONE_SESSION),
        )
    ),
    *(
        ProcessCase(CallCase("get_cli_command_output", ("c",), None, label, patched=patched))
        for label, patched in (
            (LEGACY, {"text_": lambda data, charset: legacy_string("a--More--b")}),
            (f"ready {LEGACY}", {"text_": lambda data, charset: ready_legacy_string("a--More--b")}),
        )
    ),
    ProcessCase(
        CallCase("capture_sniffer_profile", ("p", PerCall(legacy_string, "Stop")), None, LEGACY)
    ),
    *(
        ProcessCase(
            CallCase(function, arguments, error, label, cli=cli, patched=patched), handling=True
        )
        for function, arguments, error, label, cli, patched in (
            (
                "get_cli_command_output",
                ("c",),
                Failure,
                "no output, a class is raised",
                None,
                {"CFunctionError": lambda message: Failure},
            ),
            ("get_token", (), AttributeError, "no file", "", {"open": lambda path, mode: None}),
            ("get_token", (), Failure, "write fails", "", {"open": failing_open("write")}),
            ("get_system_arp_result", (), IndexError, "no header", "no header", {}),
            ("get_bfd_neighbor", ("c", {}), None, "broken", f"{ONE_SESSION}Local timers", {}),
            ("list_bfd_neighbor", (), None, "no output", None, {}),
        )
    ),
]
