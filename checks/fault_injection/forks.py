"""Child processes: a function is called in a fork of this process, and its result comes back."""

from __future__ import annotations

import ctypes
import faulthandler
import os
import pickle
import signal
import traceback
from typing import IO, Any, Callable, TypeVar

from checks.fault_injection.crashes import Death, death

Result = TypeVar("Result")

SECONDS = 60  # that a child may take; it needs some milliseconds
LAST = 3000  # characters of what a child wrote


class DiedError(Exception):
    """A child ended without a result: where, and what it wrote before."""

    def __init__(self, death: Death, written: str) -> None:
        super().__init__(str(death) if death.functions else f"{death}\n{written[-LAST:]}")
        self.death = death


class Children:
    """Forks of this process, whose standard error goes to a file from here on.

    `orderly`: they end by way of the C library's `exit`, which writes what compilers count.
    """

    def __init__(self, errors: IO[bytes], orderly: bool) -> None:
        self._errors, self._orderly = errors, orderly
        os.dup2(errors.fileno(), 2)
        faulthandler.enable()

    def result(self, function: Callable[..., Result], *arguments: object) -> Result:
        """What the function returns in a child. `DiedError`: nothing."""
        reading, writing = os.pipe()
        child = os.fork()
        if child == 0:
            os.close(reading)
            self._serve(writing, function, arguments)
        os.close(writing)
        with os.fdopen(reading, "rb") as answer:
            told = answer.read()
        _pid, status = os.waitpid(child, 0)
        if status != 0:
            written = self._written()
            raise DiedError(death(_how(status), written), written)
        result: Result = pickle.loads(told)
        return result

    def _serve(self, writing: int, function: Callable[..., Any], arguments: Any) -> None:
        signal.alarm(SECONDS)
        try:
            with os.fdopen(writing, "wb") as answer:
                pickle.dump(function(*arguments), answer)
        except BaseException:
            os.write(2, traceback.format_exc().encode())
            os._exit(1)
        if self._orderly:
            ctypes.CDLL(None).exit(0)
        os._exit(0)

    def _written(self) -> str:
        self._errors.seek(0)
        text = self._errors.read().decode(errors="replace")
        self._errors.seek(0)
        self._errors.truncate()
        return text


def _how(status: int) -> str:
    if os.WIFSIGNALED(status):
        return f"died of {signal.Signals(os.WTERMSIG(status)).name}"
    return f"ended with status {os.WEXITSTATUS(status)}"
