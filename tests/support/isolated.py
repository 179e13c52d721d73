"""Isolated interpreter processes for tests of steps that a process can take only once.

These are imports, failed imports and second interpreters. `run` sends the source of one function to
a new interpreter, which loads the simulator's library, finds the modules of the staging directory,
calls the function and returns its value or its exception as JSON.
"""

from __future__ import annotations
import __future__

import builtins
import importlib
import inspect
import json
import subprocess
import sys
import textwrap
import warnings
from contextlib import suppress
from dataclasses import dataclass
from importlib.machinery import ModuleSpec
from pathlib import Path
from sysconfig import get_config_var
from types import BuiltinFunctionType, ModuleType, SimpleNamespace
from typing import Any, Callable

from tests.support.assertions import MODULE
from veldarin_simulator import native_library

__all__ = [
    "BUILD",
    "MODULE",
    "MODULE_PATH",
    "ROOT",
    "WRONG_PYTHON_MODULE",
    "Entry",
    "Error",
    "Outcome",
]

ROOT = Path(__file__).resolve().parents[2]
BUILD = native_library.build_directory()
MODULE_PATH = BUILD.joinpath("stage", *MODULE.split(".")).with_suffix(get_config_var("EXT_SUFFIX"))
# The module's objects, linked with a fake Python version and with comparisons that can fail.
WRONG_PYTHON_MODULE = BUILD / "wrong_python_version" / MODULE_PATH.name

SECONDS = 120  # much longer than any of these processes needs


@dataclass(frozen=True)
class Entry:
    """A traceback entry: its code, its lines, and `__name__` in its frame's globals."""

    name: str
    file: str
    first_line: int
    line: int
    module: str | None


@dataclass(frozen=True)
class Error:
    """An exception of the isolated process; `type` is the name of its class."""

    type: str
    bases: tuple[str, ...]
    text: str
    entries: tuple[Entry, ...]

    @classmethod
    def of(cls, described: dict[str, Any]) -> Error:
        """Return the exception that `encode_exception` encoded."""
        entries = tuple(Entry(*entry) for entry in described["entries"])
        return cls(described["type"], tuple(described["bases"]), described["text"], entries)

    def entries_of(self, name: str) -> list[Entry]:
        """The traceback entries of one function, outermost first."""
        return [entry for entry in self.entries if entry.name == name]


@dataclass(frozen=True)
class Outcome:
    """The result of an isolated function: its value or its exception."""

    value: Any
    error: Error | None


def encode_exception(error: BaseException) -> dict[str, Any]:
    """Encode an exception with its traceback as JSON data; isolated functions may use it."""
    entries = []
    link = error.__traceback__
    while link is not None:
        frame = link.tb_frame
        code = frame.f_code
        entries.append(
            [
                code.co_name,
                code.co_filename,
                code.co_firstlineno,
                link.tb_lineno,
                frame.f_globals.get("__name__"),
            ]
        )
        link = link.tb_next
    return {
        "type": type(error).__name__,
        "bases": [base.__name__ for base in type(error).__mro__],
        "text": str(error),
        "entries": entries,
    }


def run(function: Callable[..., object], *arguments: object) -> Outcome:
    """Call `function` in a new interpreter with `arguments`, which must be JSON data.

    The function sees the names of this file, of `doubles` and of `fake_siblings`, those of
    `_names`, and its own imports. If the process crashes the test fails with its standard error.
    """
    request = {
        "source": textwrap.dedent(inspect.getsource(function)),
        "name": function.__name__,
        "arguments": arguments,
    }
    process = subprocess.run(
        [sys.executable, "-X", "faulthandler", "-m", "tests.support.isolated"],
        input=json.dumps(request),
        text=True,
        capture_output=True,
        timeout=SECONDS,
        cwd=ROOT,
    )
    assert process.returncode == 0, f"exit status {process.returncode}\n{process.stderr}"
    reply = json.loads(process.stdout)
    return Outcome(reply["value"], Error.of(reply["error"]) if reply["error"] else None)


def value(function: Callable[..., object], *arguments: object) -> Any:
    """Return the value of `function` in a new interpreter; an exception fails the test."""
    outcome = run(function, *arguments)
    assert outcome.error is None, outcome.error
    return outcome.value


def error(function: Callable[..., object], *arguments: object) -> Error:
    """Return the exception of `function` in a new interpreter; without one the test fails."""
    outcome = run(function, *arguments)
    assert outcome.error is not None, f"no exception, but the value {outcome.value!r}"
    return outcome.error


def _names() -> dict[str, Any]:
    """The globals of a function in the new interpreter."""
    support = [importlib.import_module(f"tests.support.{n}") for n in ("doubles", "fake_siblings")]
    shared: list[Any] = [BuiltinFunctionType, ModuleSpec, ModuleType, SimpleNamespace, suppress]
    modules = [builtins, importlib, sys, warnings]
    named = {item.__name__: item for item in (*shared, *modules)}
    return {
        **vars(support[0]),
        **vars(support[1]),
        **globals(),
        **named,
        "__name__": "isolated",
        "Any": Any,
    }


def _serve() -> None:
    """Read a request from standard input, call its function, write a reply to standard output."""
    request = json.load(sys.stdin)
    native_library.load()
    names = _names()
    code = compile(request["source"], "<isolated>", "exec", __future__.annotations.compiler_flag)
    exec(code, names)
    reply: dict[str, Any] = {"value": None, "error": None}
    try:
        reply["value"] = names[request["name"]](*request["arguments"])
    except BaseException as error:  # also SystemExit and KeyboardInterrupt
        reply["error"] = encode_exception(error)
    json.dump(reply, sys.stdout)


if __name__ == "__main__":
    _serve()
