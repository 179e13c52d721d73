"""Long-lived objects that calls of the module use: only their reference counts show a missing or an
extra decref."""

from __future__ import annotations

import copy
import sys
from types import ModuleType

from tests.support.function_table import FUNCTIONS


def interned_strings() -> list[str]:
    """Strings that the module keeps for the life of the process: names, keys, constants."""
    words = """
        policy_id instance_id port_name trunk_name mkey name profile-name profile_name event cmd
        list_bfd characters https plain encrypted path cmd_s ip_address request response interface
        entry distance metric lastUpdate other table main ip ipAddress age mac neighbor_ip
        local_timers remote_timers zebra_notifications loads format debug error deepcopy is_file
        absolute write readline strip read decode Running Stop Pause Delete peer objname w r utf-8
        packets Routing Address split replace keys __enter__ __exit__ --More--
    """.split()
    names = [row.name for row in FUNCTIONS]
    return [sys.intern(word) for word in [*words, *names, "", " ", "_", "\n", "\t", "\r", ":", ","]]


def permanent_objects() -> list[object]:
    """Objects of the interpreter that live as long as the process."""
    types: list[object] = [
        object,
        type,
        str,
        bytes,
        bytearray,
        dict,
        list,
        tuple,
        int,
        bool,
        complex,
        float,
        range,
        BaseException,
        TypeError,
        IndexError,
        KeyError,
        NameError,
        AttributeError,
        ValueError,
        UnboundLocalError,
        UnicodeDecodeError,
    ]
    constants: list[object] = [None, True, False, (), b"", Ellipsis, open]
    # The interpreter has one object each for these; missing references would free them.
    shared: list[object] = [*range(-5, 257), *map(chr, range(256))]
    return [*types, *constants, *shared, *interned_strings()]


def tracked_objects(module: ModuleType, arguments: list[object]) -> list[object]:
    """Objects whose references are counted."""
    import ujson
    from util.json import JSONObject

    used = [JSONObject, ujson.loads, copy.deepcopy]
    return [*permanent_objects(), *used, vars(module), *vars(module).values(), *arguments]
