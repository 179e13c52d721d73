"""Assertions: exact exceptions, the module's traceback entries, and equality of values with their
types and the order of keys."""

from __future__ import annotations

import reprlib
from collections.abc import Iterable
from types import TracebackType
from typing import Any, Callable, NamedTuple, TypeVar

MODULE = "veldarin.modules.modules_util"
FILE = "veldarin/modules/modules_util"

E = TypeVar("E", bound=BaseException)


class Entry(NamedTuple):
    """A traceback entry of the module."""

    function: str
    first_line: int
    line: int


def traceback_entries(traceback: TracebackType | None) -> list[Entry]:
    """The module's entries in a traceback, outermost first."""
    found = []
    while traceback is not None:
        code = traceback.tb_frame.f_code
        if code.co_filename == FILE:
            name = code.co_name
            assert name.startswith(MODULE + "."), name
            function = name[len(MODULE) + 1 :]
            found.append(Entry(function, code.co_firstlineno, traceback.tb_lineno))
        traceback = traceback.tb_next
    return found


def entry(error: BaseException, function: str) -> Entry:
    """The only entry of the function in the exception's traceback."""
    found = [e for e in traceback_entries(error.__traceback__) if e.function == function]
    assert len(found) == 1, f"{function} left {len(found)} traceback entries"
    return found[0]


def line(error: BaseException, function: str) -> int:
    """The line of the statement that failed in the function."""
    return entry(error, function).line


def raises_exactly(kind: type[E], function: Callable[..., object], *args: Any, **kwargs: Any) -> E:
    """Return the exception of the call, which must have exactly this type."""
    try:
        result = function(*args, **kwargs)
    except BaseException as error:  # a test may expect KeyboardInterrupt
        if type(error) is not kind:
            raise
        return error
    raise AssertionError(f"returned {result!r} instead of raising {kind.__name__}")


def fails(kind: type[E], function: Callable[..., object], *args: Any, **kwargs: Any) -> E:
    """Return the exception of a call of a module function, which leaves one traceback entry."""
    error = raises_exactly(kind, function, *args, **kwargs)
    found = entry(error, function.__name__)
    assert found.line >= found.first_line
    return error


def wrong_type_message(parameter: str, expected: str, value: object) -> str:
    """The message for an argument of the wrong type."""
    given = type(value).__name__
    return f"Argument '{parameter}' has incorrect type (expected {expected}, got {given})"


def is_increasing(lines: Iterable[int]) -> bool:
    """Each line is greater than the one before."""
    lines = list(lines)
    return all(before < after for before, after in zip(lines, lines[1:]))


def with_types(value: object) -> object:
    """Return the value with the type of every part, and dictionaries as lists of items."""
    kind = type(value).__name__
    if isinstance(value, dict):
        return kind, [(with_types(k), with_types(v)) for k, v in value.items()]
    if isinstance(value, (list, tuple)):
        return kind, [with_types(v) for v in value]
    return kind, value


def assert_same(ours: object, theirs: object, what: str) -> None:
    """Fail unless the values are equal, the types and the order of keys included.

    The message names the first difference only: pytest takes minutes to compare huge values.
    """
    if with_types(ours) != with_types(theirs):
        raise AssertionError(_first_difference(ours, theirs, what))


def _first_difference(ours: Any, theirs: Any, where: str) -> str:
    if type(ours).__name__ != type(theirs).__name__:
        return f"{where}: {_described(ours)} instead of {_described(theirs)}"
    if isinstance(ours, dict):
        for (our_key, our_value), (their_key, their_value) in zip(ours.items(), theirs.items()):
            if with_types(our_key) != with_types(their_key):
                return _first_difference(our_key, their_key, f"{where}, a key")
            if with_types(our_value) != with_types(their_value):
                return _first_difference(our_value, their_value, f"{where}[{our_key!r:.60}]")
    elif isinstance(ours, (list, tuple)):
        for index, (our_item, their_item) in enumerate(zip(ours, theirs)):
            if with_types(our_item) != with_types(their_item):
                return _first_difference(our_item, their_item, f"{where}[{index}]")
    elif isinstance(ours, str):
        shorter = min(len(ours), len(theirs))
        at = next((at for at in range(shorter) if ours[at] != theirs[at]), shorter)
        return f"{where}: {ours[at:][:40]!r} instead of {theirs[at:][:40]!r} at character {at}"
    else:
        return f"{where}: {_described(ours)} instead of {_described(theirs)}"
    return f"{where}: {len(ours)} items instead of {len(theirs)}"


def _described(value: object) -> str:
    return f"{type(value).__name__} {reprlib.repr(value)}"
