"""What the tests of the functions watch with: exceptions and their traceback entries, recorded
calls, and values taken apart so that types and the order of keys count."""

from __future__ import annotations

import reprlib
from collections.abc import Iterable
from types import TracebackType
from typing import Any, Callable, NamedTuple, NoReturn, TypeVar

MODULE = "veldarin.modules.modules_util"
FILE = "veldarin/modules/modules_util"

E = TypeVar("E", bound=BaseException)


class Entry(NamedTuple):
    """One traceback entry of the native module."""

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
    """The one entry that the function left in the exception's traceback."""
    found = [e for e in traceback_entries(error.__traceback__) if e.function == function]
    assert len(found) == 1, f"{function} left {len(found)} traceback entries"
    return found[0]


def line(error: BaseException, function: str) -> int:
    """The line of the statement that failed in the function."""
    return entry(error, function).line


def failure(kind: type[E], function: Callable[..., object], *args: Any, **kwargs: Any) -> E:
    """The exception that the call raises, of exactly this type."""
    try:
        result = function(*args, **kwargs)
    except BaseException as error:  # a test may expect KeyboardInterrupt
        if type(error) is not kind:
            raise
        return error
    raise AssertionError(f"returned {result!r} instead of raising {kind.__name__}")


def wrong_type(parameter: str, expected: str, value: object) -> str:
    """The text of a refused argument."""
    given = type(value).__name__
    return f"Argument '{parameter}' has incorrect type (expected {expected}, got {given})"


def ascending(lines: Iterable[int]) -> bool:
    """Each line is greater than the one before."""
    lines = list(lines)
    return all(before < after for before, after in zip(lines, lines[1:]))


def raising(error: BaseException) -> Callable[..., NoReturn]:
    """A callable that takes anything and raises the error."""

    def raises(*_args: object, **_kwargs: object) -> NoReturn:
        raise error

    return raises


class Recorder:
    """A callable that notes its arguments and then does what `answer` does."""

    def __init__(self, answer: Callable[..., Any] = lambda *args, **kwargs: None) -> None:
        self.answer = answer
        self.calls: list[tuple[tuple[Any, ...], dict[str, Any]]] = []

    def __call__(self, *args: Any, **kwargs: Any) -> Any:
        self.calls.append((args, kwargs))
        return self.answer(*args, **kwargs)

    @property
    def positional(self) -> list[tuple[Any, ...]]:
        """The positional arguments of each call; no call had keywords."""
        assert all(not kwargs for _args, kwargs in self.calls), self.calls
        return [args for args, _kwargs in self.calls]


class RecordingLogger:
    """A logger that keeps what it is told."""

    def __init__(self) -> None:
        self.debug = Recorder()
        self.error = Recorder()

    @property
    def debugged(self) -> list[str]:
        """The one argument of each call of `debug`."""
        return [text for (text,) in self.debug.positional]


class Truth:
    """A value whose truth is asked for at most as often as the test allows, and counted."""

    def __init__(self, truth: bool | BaseException) -> None:
        self.truth = truth
        self.asked = 0

    def __bool__(self) -> bool:
        self.asked += 1
        if isinstance(self.truth, BaseException):
            raise self.truth
        return self.truth


class Number(int):
    """A number, as a request accepts it, that counts the questions after its truth."""

    truth: bool | BaseException = True
    asked = 0

    def __bool__(self) -> bool:
        self.asked += 1
        if isinstance(self.truth, BaseException):
            raise self.truth
        return self.truth


def taken_apart(value: object) -> object:
    """The value with the type of every part, and dictionaries as lists of items."""
    kind = type(value).__name__
    if isinstance(value, dict):
        return kind, [(taken_apart(k), taken_apart(v)) for k, v in value.items()]
    if isinstance(value, (list, tuple)):
        return kind, [taken_apart(v) for v in value]
    return kind, value


def assert_same(ours: object, theirs: object, what: str) -> None:
    """Fail unless the values are equal, the types and the order of keys included.

    The message names the first difference only: pytest takes minutes to compare huge values.
    """
    if taken_apart(ours) != taken_apart(theirs):
        raise AssertionError(_first_difference(ours, theirs, what))


def _first_difference(ours: Any, theirs: Any, where: str) -> str:
    if type(ours).__name__ != type(theirs).__name__:
        return f"{where}: {_described(ours)} instead of {_described(theirs)}"
    if isinstance(ours, dict):
        for (our_key, our_value), (their_key, their_value) in zip(ours.items(), theirs.items()):
            if taken_apart(our_key) != taken_apart(their_key):
                return _first_difference(our_key, their_key, f"{where}, a key")
            if taken_apart(our_value) != taken_apart(their_value):
                return _first_difference(our_value, their_value, f"{where}[{our_key!r:.60}]")
    elif isinstance(ours, (list, tuple)):
        for index, (our_item, their_item) in enumerate(zip(ours, theirs)):
            if taken_apart(our_item) != taken_apart(their_item):
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
