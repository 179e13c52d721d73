"""Test doubles: loggers, files, mappings and strings that record their use or fail."""

from __future__ import annotations

import ctypes
import io
from functools import partial
from pathlib import Path
from typing import Any, Callable, NoReturn


class StrSubclass(str):
    """A subclass of str without changes."""


class OwnMethodsStr(str):
    """A string that records calls of its `split` and `replace`."""

    called: list[str]

    def __new__(cls, text: str, called: list[str]) -> OwnMethodsStr:
        made = super().__new__(cls, text)
        made.called = called
        return made

    def split(self, *args: Any) -> list[str]:
        self.called.append("split")
        return []

    def replace(self, *args: Any) -> str:
        self.called.append("replace")
        return "replaced"


class BytesSubclass(bytes):
    """A subclass of bytes without changes."""


def raiser(error: BaseException) -> Callable[..., NoReturn]:
    """A callable that takes anything and raises the error."""

    def raises(*_args: object, **_kwargs: object) -> NoReturn:
        raise error

    return raises


class Recorder:
    """A callable that records its arguments, then calls `side_effect`."""

    def __init__(self, side_effect: Callable[..., Any] = lambda *args, **kwargs: None) -> None:
        self.side_effect = side_effect
        self.calls: list[tuple[tuple[Any, ...], dict[str, Any]]] = []

    def __call__(self, *args: Any, **kwargs: Any) -> Any:
        self.calls.append((args, kwargs))
        return self.side_effect(*args, **kwargs)

    @property
    def positional(self) -> list[tuple[Any, ...]]:
        """The positional arguments of each call; no call had keywords."""
        assert all(not kwargs for _args, kwargs in self.calls), self.calls
        return [args for args, _kwargs in self.calls]


class RecordingLogger:
    """A logger that records its calls."""

    def __init__(self) -> None:
        self.debug = Recorder()
        self.error = Recorder()

    @property
    def debug_messages(self) -> list[str]:
        """The one argument of each call of `debug`."""
        return [text for (text,) in self.debug.positional]


class CountingBool:
    """A value that counts its truth tests; they return `truth` or raise it."""

    def __init__(self, truth: bool | BaseException) -> None:
        self.truth = truth
        self.bool_calls = 0

    def __bool__(self) -> bool:
        self.bool_calls += 1
        if isinstance(self.truth, BaseException):
            raise self.truth
        return self.truth


class CountingInt(int):
    """An int, which a request accepts, that counts its truth tests."""

    truth: bool | BaseException = True
    bool_calls = 0
    __bool__ = CountingBool.__bool__


class Failure(Exception):
    """The exception that test doubles raise."""


def fail(*args: object, **kwargs: object) -> Any:
    raise Failure


class UnconstructibleException(Exception):
    """An exception class whose constructor fails."""

    __init__ = fail


class IntMakingException(Exception):
    """An exception class that returns an int when it is called."""

    def __new__(cls, *args: object) -> Any:
        return 5


class AlwaysRaises:
    """An object whose every operation fails."""

    __call__ = __bool__ = __getattr__ = __iter__ = __eq__ = __len__ = __contains__ = fail
    __hash__ = None  # type: ignore[assignment]


class NullLogger:
    """A logger that does nothing; calling the class returns one."""

    def __init__(self, *given: object) -> None:
        pass

    def debug(self, text: str) -> None:
        pass

    error = debug


class UncomparableStr(str):
    """A string whose comparison fails; as a key it breaks the lookup of equal keys."""

    __hash__ = str.__hash__
    __eq__ = fail


class MishashedStr(str):
    """A string whose hash differs from that of an equal string."""

    def __hash__(self) -> int:
        return super().__hash__() ^ 1


class NoTruthValue:
    """An object whose comparison returns a value without a truth value."""

    __hash__ = None  # type: ignore[assignment]

    def __eq__(self, other: object) -> Any:
        return AlwaysRaises()


class FailNth:
    """A callable whose call number `fails_at`, counted from 0, fails."""

    def __init__(self, fails_at: int | None) -> None:
        self.fails_at, self.taken = fails_at, 0

    def __call__(self, *given: object) -> None:
        self.taken += 1
        if self.taken - 1 == self.fails_at:
            raise Failure


class FailingFile(io.StringIO):
    """A file in which one step fails; its `__exit__` may suppress the exception."""

    def __init__(self, fails: str = "", suppresses: bool = False) -> None:
        super().__init__("text\n")
        self.fails, self.suppresses = fails, suppresses

    def step(self, name: str) -> None:
        if name == self.fails:
            raise Failure

    def __enter__(self) -> FailingFile:
        self.step("enter")
        return self

    def __exit__(self, *error: object) -> Any:
        self.step("exit")
        return self.suppresses

    def readline(self, *size: Any) -> Any:
        self.step("readline")
        return "text\n"

    def write(self, text: str) -> int:
        self.step("write")
        return len(text)


class NoTruthValueFile(FailingFile):
    """A file whose `__exit__` returns a value without a truth value."""

    def __exit__(self, *error: object) -> Any:
        return AlwaysRaises()


def failing_open(
    fails: str = "", mode: str = "wr", suppresses: bool = False
) -> Callable[..., FailingFile]:
    """Return an `open` whose file fails at the step if its mode is in `mode`."""
    return lambda path, how: FailingFile(fails if how in mode else "", suppresses)


def failing_path(fails: str) -> Callable[[str], object]:
    """Return a `Path` class with one failing method."""

    class FailingPath(type(Path())):  # type: ignore[misc]
        pass

    setattr(FailingPath, fails, fail)
    return FailingPath


class NoTruthValuePath:
    """A `Path` whose `is_file` returns a value without a truth value."""

    def __init__(self, path: str) -> None:
        pass

    def is_file(self) -> AlwaysRaises:
        return AlwaysRaises()


class UnreplaceableStr(str):
    """A string whose `replace` fails."""

    replace = fail


class Stop(BaseException):
    """An exception that handlers of `Exception` do not catch."""


def stop(*args: object) -> Any:
    raise Stop


class StoppingLogger:
    """A logger whose methods raise `Stop`."""

    debug = error = staticmethod(stop)


class BrokenMapping:
    """A mapping that contains every key, but fails to get or set one."""

    __getitem__: Callable[..., Any] = fail
    __setitem__ = fail

    def __contains__(self, name: object) -> bool:
        return True


class ReadOnlyMapping(BrokenMapping):
    """A mapping that contains every key, but fails to set one."""

    def __getitem__(self, *name: object) -> Any:
        return {}


class MissingKeyMapping:
    """A mapping whose `keys` names a key that it does not contain."""

    __getitem__: Any = {}.__getitem__

    def keys(self) -> list[str]:
        return ["x"]


class RepeatedKeyMapping:
    """A mapping whose `keys` names one key twice."""

    def keys(self) -> list[str]:
        return ["x", "x"]

    def __getitem__(self, key: str) -> Any:
        return {}


def c_raiser(raiser: Any, *given: object) -> Callable[..., Any]:
    """Return a C function that raises an exception that is not yet normalized."""
    raiser.restype, raiser.argtypes = None, [ctypes.py_object] * len(given)
    return partial(raiser, *given)


class MissingKeyWithoutArgs(MissingKeyMapping):
    """A `MissingKeyMapping` whose KeyError has no arguments."""

    __getitem__ = c_raiser(ctypes.pythonapi.PyErr_SetNone, KeyError)


class MissingKeyWithTwoArgs(MissingKeyMapping):
    """A `MissingKeyMapping` whose KeyError has two arguments."""

    __getitem__ = c_raiser(ctypes.pythonapi.PyErr_SetObject, KeyError, ("x", "y"))


class RightAddable:
    """An object that contains "peer" and becomes a string when it is added to one."""

    def __init__(self, text: str) -> None:
        self.text = text

    def __contains__(self, text: object) -> bool:
        return text == "peer"

    def __radd__(self, before: str) -> str:
        return before + self.text
