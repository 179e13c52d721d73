"""The native services and the siblings' C-level interfaces, called as the module calls them."""

from __future__ import annotations

import ctypes
from typing import Any

POINTER_SIZE = ctypes.sizeof(ctypes.c_void_p)
LG_STATE = "build_switch_lg_state"
CAPTURE_SERVICES = [
    f"build_{action}_sniffer_profile_capture" for action in ("start", "stop", "pause", "delete")
]
RELEASE = "JSONObject.release"


def fail(*_: object) -> object:
    """A reply or hook that raises."""
    raise LookupError("no reply")


class Native:
    """The services and json-c, found among the process's symbols."""

    def __init__(self) -> None:
        self.process = ctypes.PyDLL(None)

    def function(self, name: str, result: Any, *arguments: Any) -> Any:
        """Return a function with its signature."""
        function = self.process[name]  # an attribute would be shared
        function.restype = result
        function.argtypes = arguments
        return function

    def json(self, name: str, *pointers: int | None) -> int | None:
        """Return the json-c object of a service."""
        signature = [ctypes.c_void_p] * len(pointers)
        reply: int | None = self.function(name, ctypes.c_void_p, *signature)(*pointers)
        return reply

    def json_text(self, name: str, *pointers: int | None) -> bytes:
        """Return the text of a service's json-c object."""
        reply = self.json(name, *(pointers or (None, None)))
        text = self.rendered(reply)
        self.put(reply)
        return text

    def text(self, name: str, *arguments: bytes | None) -> bytes | None:
        """Return the text of a service and free its buffer."""
        signature = [ctypes.c_char_p] * len(arguments)
        buffer = self.function(name, ctypes.c_void_p, *signature)(*arguments)
        return None if buffer is None else self.take(buffer)

    def command(self, command: bytes, first: int | None = None) -> int | None:
        """Return the buffer of a command's output, which the caller frees."""
        run = self.function("get_cli_cmd_output", ctypes.c_void_p, ctypes.c_void_p, ctypes.c_char_p)
        buffer: int | None = run(first, command)
        return buffer

    def unwrap(self, text: bytes) -> tuple[int, bytes]:
        """Return the status of unwrapping and the content of the buffer."""
        buffer = ctypes.create_string_buffer(text)
        unwrap = self.function("cookieval_unwrap", ctypes.c_int, ctypes.c_char_p)
        return unwrap(buffer), buffer.value

    def number(self, name: str, *arguments: bytes) -> int:
        """Return a cookie identifier or a hash."""
        signature = [ctypes.c_char_p] * len(arguments)
        return int(self.function(name, ctypes.c_ulong, *signature)(*arguments))

    def certificate(self, path: bytes) -> int:
        """Return the status of a certificate check."""
        check = self.function("gui_chk_cert_expiration", ctypes.c_int, ctypes.c_char_p)
        return int(check(path))

    def take(self, buffer: int | None) -> bytes:
        """Return the text in a buffer and free it with PyMem_Free."""
        assert buffer is not None
        text = ctypes.string_at(buffer)
        release = ctypes.pythonapi["PyMem_Free"]
        release.restype, release.argtypes = None, [ctypes.c_void_p]
        release(buffer)
        return text

    def rendered(self, reply: int | None) -> bytes:
        """Return the text of a json-c object."""
        render = self.function("json_object_to_json_string", ctypes.c_char_p, ctypes.c_void_p)
        return bytes(render(reply))

    def put(self, reply: int | None) -> None:
        """Drop a reference to a json-c object."""
        self.function("json_object_put", ctypes.c_int, ctypes.c_void_p)(reply)


def capsule_pointer(capsule: object, name: bytes | None) -> int:
    """Return the pointer in a capsule of that name."""
    pointer = ctypes.pythonapi["PyCapsule_GetPointer"]
    pointer.restype, pointer.argtypes = ctypes.c_void_p, [ctypes.py_object, ctypes.c_char_p]
    return int(pointer(capsule, name))


def value_field(instance: Any) -> Any:
    """Return the pointer field of a JSONObject, behind head and method table."""
    return ctypes.c_void_p.from_address(id(instance) + object.__basicsize__ + POINTER_SIZE)


def value_of(instance: Any) -> int | None:
    """Return the json-c object of a JSONObject."""
    pointer: int | None = value_field(instance).value
    return pointer


def release(instance: Any) -> Any:
    """Call the first operation of a JSONObject's method table."""
    table = ctypes.c_void_p.from_address(id(instance) + object.__basicsize__).value
    assert table is not None
    operation = ctypes.c_void_p.from_address(table).value
    assert operation is not None
    return ctypes.PYFUNCTYPE(ctypes.py_object, ctypes.py_object)(operation)(instance)
