"""Forked child processes that return a value or a crash report."""

from __future__ import annotations

import ctypes
import faulthandler
import os
import pickle
import re
import signal
import traceback
from pathlib import Path
from typing import IO, Any, Callable, NamedTuple, TypeVar

from tests.support.isolated import MODULE_PATH

Result = TypeVar("Result")

TIMEOUT = 60  # seconds; a child needs some milliseconds
MAX_STDERR = 3000  # characters shown

# The output of native/call_site_log.cpp.
CRASH = re.compile(r"crashed in call: (.*)\nstack:\n(.*?)end of stack\n", re.DOTALL)
FRAME = re.compile(r"^(?P<file>[^()]*)\((?P<function>[^+()]*)[^()]*\)", re.MULTILINE)
# Libraries that raise the signal or only forward the call.
SKIPPED = ("libc.so", "libc-", "libpthread", "libfaults", "linux-vdso", "libasan", "_ctypes")
MAX_FRAMES = 6  # shown


class Crash(NamedTuple):
    """How a process ended, where, and in which of the module's fallible calls."""

    how: str
    place: str
    call: str
    functions: tuple[str, ...]

    def __str__(self) -> str:
        call = "" if self.call == "none" else f", in the call {self.call}"
        return f"{self.how} {self.place}{call}: {' < '.join(self.functions) or 'no stack'}"


def parse_crash(how: str, stderr: str) -> Crash:
    """Parse what a crashed process wrote to standard error."""
    found = CRASH.search(stderr)
    if found is None:
        return Crash(how, "at an unknown place", "none", ())
    frames = [(Path(frame["file"]).name, frame["function"]) for frame in FRAME.finditer(found[2])]
    frames = [(file, name) for file, name in frames if not any(part in file for part in SKIPPED)]
    files = [file for file, _function in frames]
    place = "outside the module"
    if MODULE_PATH.name in files:
        inner = files[0]
        place = (
            "in the module" if inner == MODULE_PATH.name else f"in {inner}, called by the module"
        )
    functions = tuple(function or f"a function of {file}" for file, function in frames)
    return Crash(how, place, found[1], functions[:MAX_FRAMES])


class CrashError(Exception):
    """Raised when a child ends without a result."""

    def __init__(self, crash: Crash, stderr: str) -> None:
        super().__init__(str(crash) if crash.functions else f"{crash}\n{stderr[-MAX_STDERR:]}")
        self.crash = crash


class ForkRunner:
    """Calls functions in forks of this process, whose standard error it redirects to a file.

    With `run_atexit` the children end through C's `exit`, so that a coverage build writes counts.
    """

    def __init__(self, stderr: IO[bytes], run_atexit: bool) -> None:
        self._stderr, self._run_atexit = stderr, run_atexit
        os.dup2(stderr.fileno(), 2)
        faulthandler.enable()

    def run(self, function: Callable[..., Result], *arguments: object) -> Result:
        """Call the function in a child and return its result; raise `CrashError` for none."""
        read_end, write_end = os.pipe()
        child = os.fork()
        if child == 0:
            os.close(read_end)
            self._run_child(write_end, function, arguments)
        os.close(write_end)
        with os.fdopen(read_end, "rb") as pipe:
            pickled = pipe.read()
        _pid, status = os.waitpid(child, 0)
        if status == 0:
            result: Result = pickle.loads(pickled)
            return result
        how = f"ended with status {os.WEXITSTATUS(status)}"
        if os.WIFSIGNALED(status):
            how = f"died of {signal.Signals(os.WTERMSIG(status)).name}"
        self._stderr.seek(0)
        stderr = self._stderr.read().decode(errors="replace")
        self._stderr.seek(0)
        self._stderr.truncate()
        raise CrashError(parse_crash(how, stderr), stderr)

    def _run_child(self, write_end: int, function: Callable[..., Any], arguments: Any) -> None:
        signal.alarm(TIMEOUT)
        try:
            with os.fdopen(write_end, "wb") as pipe:
                pickle.dump(function(*arguments), pipe)
        except BaseException:
            os.write(2, traceback.format_exc().encode())
            os._exit(1)
        if self._run_atexit:
            ctypes.CDLL(None).exit(0)
        os._exit(0)
