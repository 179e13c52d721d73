"""Cases that only a process of its own can bear: what they arrange is never taken back."""

from __future__ import annotations

import ctypes
import sys
from typing import Any, Callable, NamedTuple

from tests.support.call_cases import ARP, ONE_SESSION, ROUTING, CallCase
from tests.support.doubles import Failure, UncomparableStr, failing_open


class Arranged(NamedTuple):
    """A case, what is done to the module before, and whether its caller is handling an exception.

    The interpreter makes an exception at once where another one is being handled, and needs memory
    for it.
    """

    case: CallCase
    arrange: Callable[[Any], object] = lambda module: None
    handling: bool = False

    @property
    def function(self) -> str:
        """The function that is called."""
        return self.case.function

    def __str__(self) -> str:
        return f"{self.case}{' while handling' * self.handling}"


class Each:
    """An argument that is made anew for each call."""

    def __init__(self, make: Callable[[], object]) -> None:
        self.make = make


def unready(text: str) -> str:
    """A text as old interfaces of the interpreter make it: its storage is not settled yet."""
    make, characters = ctypes.pythonapi.PyUnicode_FromUnicode, ctypes.pythonapi.PyUnicode_AsUnicode
    make.restype, make.argtypes = ctypes.py_object, [ctypes.c_void_p, ctypes.c_ssize_t]
    characters.restype, characters.argtypes = ctypes.c_void_p, [ctypes.py_object]
    made: str = make(None, len(text))
    ctypes.memmove(characters(made), ctypes.create_unicode_buffer(text), 4 * len(text))
    return made


def made_ready(text: str) -> str:
    """Such a text whose storage has been settled: it is not where that of other texts is."""
    made = unready(text)
    len(made + "more")
    return made


def running(text: str) -> dict[str, Any]:
    """A runner whose text is not ready."""
    return {"get_cli_command_output": lambda command: unready(text)}


def hide(name: str) -> Callable[[Any], None]:
    """Puts a key that cannot be compared in the place of a global name."""

    def hide_in(module: Any) -> None:
        names = vars(module)
        names[UncomparableStr(name)] = names.pop(name)

    return hide_in


def raised_class(message: str) -> type[Exception]:
    """What may be raised for an error: a class alone."""
    return Failure


def no_file(path: object, mode: str) -> None:
    """What may be opened instead of a file."""


CASES = [
    *(
        Arranged(CallCase("get_cookie_name", (1,), Failure, f"{name} is hidden"), hide(name))
        for name in ("text_", "serial_number_ascii")
    ),
    *(
        Arranged(CallCase("decrypt_cookie", (bytes(size),), OverflowError, "longer than a buffer"))
        for size in (2**31,)
        if size < sys.maxsize  # the target has no such bytes
    ),
    Arranged(CallCase("get_system_arp_result", label="text not ready", patched=running(ARP))),
    Arranged(
        CallCase(
            "get_routing_table_result", ("a",), label="text not ready", patched=running(ROUTING)
        )
    ),
    Arranged(
        CallCase(
            "get_bfd_neighbor", ("c", {}), label="text not ready", patched=running(ONE_SESSION)
        )
    ),
    Arranged(
        CallCase(
            "get_routing_table_result",
            ("a",),
            label="text not ready, nothing to remove",
            patched=running(ROUTING.replace("\r", "")),
        )
    ),
    *(
        Arranged(
            CallCase(
                "get_cli_command_output",
                ("c",),
                label=f"text {what}",
                patched={"text_": lambda data, charset, make=make: make("a--More--b")},
            )
        )
        for what, make in [("not ready", unready), ("made ready", made_ready)]
    ),
    Arranged(
        CallCase(
            "capture_sniffer_profile", ("p", Each(lambda: unready("Stop"))), label="event not ready"
        )
    ),
    *(
        Arranged(case, handling=True)
        for case in (
            CallCase(
                "get_cli_command_output",
                ("c",),
                Failure,
                "no output, a class is raised",
                cli=None,
                patched={"CFunctionError": raised_class},
            ),
            CallCase("get_token", (), AttributeError, "no file", patched={"open": no_file}),
            CallCase(
                "get_token", (), Failure, "write fails", patched={"open": failing_open("write")}
            ),
            CallCase("get_system_arp_result", (), IndexError, "no header", cli="no header"),
            CallCase(
                "get_bfd_neighbor", ("c", {}), label="broken", cli=f"{ONE_SESSION}Local timers"
            ),
            CallCase("list_bfd_neighbor", label="no output", cli=None),
        )
    ),
]
