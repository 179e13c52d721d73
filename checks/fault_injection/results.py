"""How a call ended, and what was found at a point of a sweep."""

from __future__ import annotations

from types import TracebackType
from typing import Any, Callable, NamedTuple

from tests.support.assertions import FILE, with_types

OF_MEMORY = ("MemoryError", "")

Same = tuple[tuple[str, Any], tuple[str, ...]]


class Found(NamedTuple):
    """What was found at a point; `fired`: there is an allocation that could fail."""

    fired: bool
    complaints: tuple[str, ...] = ()


class Outcome(NamedTuple):
    """How a call ended: a value, or an exception with its text; and what it logged.

    `entries`: functions of the module's traceback entries, outermost first.
    """

    ended: tuple[str, Any]
    returned: bool
    logged: tuple[str, ...] = ()
    entries: tuple[str, ...] = ()

    @property
    def same(self) -> Same:
        """What is equal if two calls ended alike."""
        return self.ended, self.logged


def outcome(
    call: Callable[[], object],
    logged: list[str] | None = None,
    keep: list[BaseException] | None = None,
) -> Outcome:
    """Calls it and tells what came out; what was raised joins the exceptions that are kept."""
    lines = [] if logged is None else logged
    lines.clear()
    try:
        ended: Any = with_types(call())
    except BaseException as error:
        if keep is not None:
            keep.append(error)
        ended = type(error).__qualname__, str(error)
        return Outcome(ended, False, tuple(lines), tuple(_entries(error.__traceback__)))
    return Outcome(ended, True, tuple(lines))


def _entries(traceback: TracebackType | None) -> list[str]:
    functions = []
    while traceback is not None:
        code = traceback.tb_frame.f_code
        if code.co_filename == FILE:
            functions.append(code.co_name)
        traceback = traceback.tb_next
    return functions
