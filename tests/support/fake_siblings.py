"""Fake sibling modules for tests that break one detail of the module's imports.

`siblings()` returns a valid set: C functions and the C variable as capsules named by their
signature, a `JSONObject` of the expected size with a capsule for its vtable, and the library
modules of the import statements. A test changes one of them, adds the set to `sys.modules` with
`install` and imports. Only isolated processes use this.
"""

from __future__ import annotations

import builtins
import ctypes
import importlib
import struct
import sys
from importlib.machinery import ExtensionFileLoader
from importlib.util import module_from_spec, spec_from_file_location
from pathlib import Path
from types import ModuleType
from typing import Any, Callable, Optional

from tests.support.assertions import MODULE
from tests.support.doubles import raiser
from tests.support.isolated import MODULE_PATH

POINTER = struct.calcsize("P")
HEADER_SIZE = object.__basicsize__
JSON_OBJECT_SIZE = HEADER_SIZE + 2 * POINTER  # pointers to the vtable and the json-c object

Siblings = dict[str, Optional[ModuleType]]  # None: the import of the name fails

LIBRARY_MODULES = (
    "binascii",
    "collections",
    "logging",
    "os",
    "pathlib",
    "pyramid.compat",
    "threading",
    "ujson",
    "copy",
)

strtcpy_calls: list[tuple[int, bytes]] = []  # (size, source text) of every call

_kept: list[object] = []  # capsules point at these objects, which must never be freed
_secret_path = ctypes.create_string_buffer(b"/nonexistent/secret")


@ctypes.CFUNCTYPE(ctypes.c_void_p)
def _get_preference_cookie_secret_path() -> int:
    return ctypes.addressof(_secret_path)


@ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_int, ctypes.c_char_p)
def _strtcpy(destination: int, size: int, source: bytes) -> int:
    strtcpy_calls.append((size, source))
    text = source[: size - 1]
    ctypes.memmove(destination, text + b"\0", len(text) + 1)
    return len(text)


def capsule(pointer: int, name: bytes | None) -> Any:
    """Return a capsule with any pointer and name."""
    new = ctypes.pythonapi.PyCapsule_New
    new.restype = ctypes.py_object
    new.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p]
    _kept.append(name)
    return new(pointer, name, None)


def null_capsule(name: bytes | None) -> Any:
    """Return a capsule with a null pointer, which PyCapsule_New rejects."""
    made = capsule(1, name)
    ctypes.c_void_p.from_address(id(made) + HEADER_SIZE).value = None
    return made


def sized_type(name: str, size: int, like: type | None = None) -> type:
    """Return a type called `name` whose instances have `size` bytes; calling it returns a `like`.

    It may replace a builtin: the standard library still gets instances of the builtin.
    """
    fields: dict[str, Any] = {
        "__slots__": tuple(f"field_{number}" for number in range((size - HEADER_SIZE) // POINTER))
    }
    if like is not None:
        fields["__new__"] = lambda cls, *arguments, **keywords: like(*arguments, **keywords)
    made = type(name, (), fields)
    assert made.__basicsize__ == size, (made.__basicsize__, size)
    return made


def json_object(size: int = JSON_OBJECT_SIZE) -> Any:
    """Return a `JSONObject` type of `size` bytes with a vtable that must not be called."""
    made = sized_type("JSONObject", size)
    table = (ctypes.c_void_p * 1)(ctypes.cast(_strtcpy, ctypes.c_void_p).value)
    _kept.append(table)
    made.__pyx_vtable__ = capsule(ctypes.addressof(table), None)  # type: ignore[attr-defined]
    return made


def without_attributes(name: str, *attributes: str) -> ModuleType:
    """Return a copy of a library module without some of its names."""
    copy = ModuleType(name)
    vars(copy).update(vars(importlib.import_module(name)))
    for attribute in attributes:
        delattr(copy, attribute)
    return copy


def with_attributes(name: str, **attributes: object) -> ModuleType:
    """Return a copy of a library module with some of its names rebound."""
    copy = without_attributes(name)
    vars(copy).update(attributes)
    return copy


def c_function_capsule(function: Any, signature: bytes) -> Any:
    """Return a capsule with the address of a ctypes function, named by its signature."""
    address = ctypes.cast(function, ctypes.c_void_p).value
    assert address is not None
    return capsule(address, signature)


def siblings() -> Siblings:
    """Return a new valid set of everything that the module imports."""
    path_function = c_function_capsule(_get_preference_cookie_secret_path, b"char *(void)")
    copy_function = c_function_capsule(_strtcpy, b"int (char *, int, char const *)")
    variable = capsule(ctypes.addressof(_secret_path), b"char *")
    rows: dict[str, dict[str, object]] = {
        "util": {"__path__": []},
        "util.json": {"JSONObject": json_object()},
        "util.string": {"__pyx_capi__": {"strtcpy": copy_function}},
        "util.errors": {"CFunctionError": type("CFunctionError", (Exception,), {})},
        "migbase": {"__path__": []},
        "migbase.migbase": {"__pyx_capi__": {"WARM_START_PATH": variable}},
        "migbase.cmdbapi": {"__path__": []},
        "migbase.cmdbapi.cmdbapi_util": {"serial_number_ascii": lambda: b"serial"},
        "veldarin.modules.modules": {
            "__pyx_capi__": {"get_preference_cookie_secret_path": path_function}
        },
    }
    made: Siblings = {}
    for name, attributes in rows.items():
        module = ModuleType(name)
        vars(module).update(attributes)
        made[name] = module
    for name in LIBRARY_MODULES:
        made[name] = importlib.import_module(name)
    return made


def install(modules: Siblings) -> None:
    """Add these modules to `sys.modules`; the import of one that is None fails."""
    for name, module in modules.items():
        sys.modules[name] = module  # type: ignore[assignment]
        package, _, last = name.rpartition(".")
        parent = modules.get(package)
        if parent is not None and module is not None:
            setattr(parent, last, module)


class SiblingSandbox:
    """Valid siblings and builtins that can be broken and restored.

    `break_` runs statements on a new set named `siblings`; they see the names of this file and
    `builtins`.
    """

    def __init__(self) -> None:
        importlib.import_module("veldarin.modules")  # found while the builtins are still right
        self.valid = siblings()
        self._builtins = dict(vars(builtins))
        self._kept = len(_kept)
        install(self.valid)

    def break_(self, *statements: str) -> None:
        """Install a new set that the statements change."""
        self._kept = len(_kept)
        broken = siblings()
        for statement in statements:
            names = {**globals(), "siblings": broken, "builtins": builtins, "raiser": raiser}
            exec(statement, names)
        install(broken)

    def restore(self) -> None:
        """Restore the valid siblings and builtins."""
        vars(builtins).update(self._builtins)
        install(self.valid)
        del _kept[self._kept :]  # nothing uses the capsules of the broken set


def create_module(name: str = MODULE, path: Path = MODULE_PATH) -> Any:
    """Create the module from its file without executing it."""
    loader = ExtensionFileLoader(name, str(path))
    import_spec = spec_from_file_location(name, path, loader=loader)
    assert import_spec is not None
    return module_from_spec(import_spec)


def entry_point() -> Callable[[], int]:
    """The exported entry point, which returns the address of the definition."""
    entry = ctypes.PyDLL(str(MODULE_PATH)).PyInit_modules_util
    entry.restype = ctypes.c_void_p
    return entry


class MethodRow(ctypes.Structure):
    """`PyMethodDef`."""

    _fields_ = (
        ("name", ctypes.c_char_p),
        ("function", ctypes.c_void_p),
        ("flags", ctypes.c_int),
        ("docstring", ctypes.c_char_p),
    )


class SlotRow(ctypes.Structure):
    """`PyModuleDef_Slot`."""

    _fields_ = (("slot", ctypes.c_int), ("value", ctypes.c_void_p))


class Definition(ctypes.Structure):
    """`PyModuleDef` up to its slots."""

    _fields_ = (
        ("head", ctypes.c_byte * HEADER_SIZE),
        ("init", ctypes.c_void_p),
        ("index", ctypes.c_ssize_t),
        ("copy", ctypes.c_void_p),
        ("name", ctypes.c_char_p),
        ("docstring", ctypes.c_char_p),
        ("size", ctypes.c_ssize_t),
        ("methods", ctypes.POINTER(MethodRow)),
        ("slots", ctypes.POINTER(SlotRow)),
    )


CREATE_SLOT, EXEC_SLOT = 1, 2  # Py_mod_create, Py_mod_exec


def definition() -> Definition:
    """The definition that the entry point returns."""
    return Definition.from_address(entry_point()())


def rows_until_null(rows: Any, field: str) -> list[Any]:
    """The rows of a table before the first row whose field is null."""
    found: list[Any] = []
    while getattr(rows[len(found)], field):
        found.append(rows[len(found)])
    return found


def run_create_slot(import_spec: object) -> Any:
    """Call the create slot without the steps that the interpreter adds."""
    defined = definition()
    slots = {row.slot: row.value for row in rows_until_null(defined.slots, "slot")}
    create = ctypes.PYFUNCTYPE(ctypes.py_object, ctypes.py_object, ctypes.c_void_p)
    return create(slots[CREATE_SLOT])(import_spec, ctypes.addressof(defined))


def create_from_spec(import_spec: object) -> Any:
    """Create the module from any object as its import spec."""
    create = ctypes.pythonapi.PyModule_FromDefAndSpec2
    create.restype = ctypes.py_object
    create.argtypes = [ctypes.c_void_p, ctypes.py_object, ctypes.c_int]
    return create(entry_point()(), import_spec, sys.api_version)


def exec_module(module: Any) -> None:
    """Run the exec slot of a created module, even if it has run before."""
    definition = ctypes.pythonapi.PyModule_GetDef
    definition.restype = ctypes.c_void_p
    definition.argtypes = [ctypes.py_object]
    run = ctypes.pythonapi.PyModule_ExecDef
    run.restype = ctypes.c_int
    run.argtypes = [ctypes.py_object, ctypes.c_void_p]
    run(module, definition(module))
