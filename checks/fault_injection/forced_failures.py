"""Fallible calls that nothing makes fail where the module makes them: no want of memory, no
argument and no sibling. They are made to fail by their place, each in one case, so that what the
module would do then is known all the same.
"""

from __future__ import annotations

from typing import NamedTuple


class Forced(NamedTuple):
    """A call as written, the case in which it is made, and why nothing else makes it fail."""

    call: str
    case: str
    reason: str


EXECUTION = "import: execution: after a failure"
FORCED = [
    Forced(
        "PyInterpreterState_GetID(PyInterpreterState_Get())",
        "import: creation: from a whole spec",
        "an interpreter that runs code has its number",
    ),
    Forced("PyLong_FromLong(0)", EXECUTION, "the interpreter keeps small numbers"),
    Forced("PyLong_FromLong(32)", EXECUTION, "the interpreter keeps small numbers"),
    Forced(
        "PyDict_SetItem(state.globals, interned[id::dunder_name], interned[id::dunder_main])",
        "import: execution: as the main module",
        "the name is there and is only given another value",
    ),
    Forced(
        "PyUnicode_Compare(keyword, interned[function.parameters[i].name])",
        "switch_acl_ingress_counter-unknown keyword",
        "keys of a dictionary are ready to be compared",
    ),
    Forced(
        "PyCapsule_GetPointer(item.get(), signature)",
        EXECUTION,
        "the capsule's pointer and name have been tested",
    ),
    Forced(
        "PyDict_SetItem(arp.get(), interned[id::interface], interface.get())",
        "get_system_arp_result-()",
        "the key is there and is only given another value",
    ),
    Forced(
        "PyErr_SetObject(PyExceptionInstance_Class(raised.get()), raised.get())",
        "get_cli_command_output-no output",
        "an exception that is there needs no memory to be raised",
    ),
]
