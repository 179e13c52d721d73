"""Isolated processes, for tests of actions that work only once in a process.

These are imports, failed imports and second interpreters. A server process, which has loaded the
simulator's library but not the module, forks for each request. The fork calls one function, replies
with its value or its exception as JSON, and ends like any interpreter. `@isolated.test` runs a test
in a fork; `value` and `error` run one function, whose source they send. If the fork crashes, the
test fails with the fork's standard error.
"""

from __future__ import annotations
import __future__

import ast
import atexit
import builtins
import functools
import gc
import importlib
import inspect
import json
import os
import signal
import subprocess
import sys
import tempfile
import textwrap
import traceback
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
]

ROOT = Path(__file__).resolve().parents[2]
BUILD = native_library.build_directory()
MODULE_PATH = BUILD.joinpath("stage", *MODULE.split(".")).with_suffix(get_config_var("EXT_SUFFIX"))
# The module linked with tests/module/wrong_python_version.c, which fakes the interpreter's version
# and can make comparisons fail.
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
    """An exception from an isolated process; `type` is the name of its class."""

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


def encode_exception(error: BaseException) -> dict[str, Any]:
    """Encode an exception with its traceback as JSON data, here or in an isolated process."""
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


def test(function: Callable[..., None]) -> Callable[..., None]:
    """Run a test in an isolated process; its parameters are sent as JSON, a path as a string."""

    @functools.wraps(function)
    def isolated_test(**arguments: object) -> None:
        file = inspect.getfile(function)
        reply = _request(file=file, name=function.__name__, keywords=arguments)
        if reply["error"]:
            raise AssertionError(reply["error"]["report"])

    return isolated_test


@functools.lru_cache(maxsize=1)
def _server() -> subprocess.Popen[str]:
    """Start the server of this test process; it ends when its standard input is closed."""
    command = [sys.executable, "-X", "faulthandler", "-m", "tests.support.isolated"]
    server = subprocess.Popen(
        command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, cwd=ROOT
    )
    atexit.register(server.communicate)
    return server


def _request(**request: Any) -> dict[str, Any]:
    """Send a request to the server and return the reply of the fork."""
    server = _server()
    assert server.stdin is not None
    assert server.stdout is not None
    server.stdin.write(json.dumps({"environment": dict(os.environ), **request}, default=str) + "\n")
    server.stdin.flush()
    line = server.stdout.readline()
    if not line:
        _server.cache_clear()
        raise AssertionError(f"the server ended with exit status {server.wait()}")
    reply: dict[str, Any] = json.loads(line)
    assert reply["status"] == 0, f"wait status {reply['status']}\n{reply['errors']}"
    return reply


def _call_source(function: Callable[..., object], arguments: tuple[object, ...]) -> dict[str, Any]:
    source = textwrap.dedent(inspect.getsource(function))
    return _request(source=source, name=function.__name__, arguments=arguments)


def value(function: Callable[..., object], *arguments: object) -> Any:
    """Return the value of `function` in an isolated process; an exception fails the test.

    The arguments must be JSON data. The function does not see the names of its own file, but those
    that `_names` returns.
    """
    reply = _call_source(function, arguments)
    assert reply["error"] is None, reply["error"]["report"]
    return reply["value"]


def error(function: Callable[..., object], *arguments: object) -> Error:
    """Return the exception of `function` in an isolated process; without one the test fails."""
    reply = _call_source(function, arguments)
    assert reply["error"] is not None, f"no exception, but the value {reply['value']!r}"
    return Error.of(reply["error"])


def _names() -> dict[str, Any]:
    """The globals of a function that is sent as source: those of this file and the test doubles."""
    doubles, fake_siblings = [
        importlib.import_module(f"tests.support.{name}") for name in ("doubles", "fake_siblings")
    ]
    fake_siblings.siblings()  # imports the library modules once, for all forks
    shared: list[Any] = [BuiltinFunctionType, ModuleSpec, ModuleType, SimpleNamespace, suppress]
    modules = [builtins, importlib, sys, warnings]
    named = {item.__name__: item for item in (*shared, *modules)}
    return {
        **vars(doubles),
        **vars(fake_siblings),
        **globals(),
        **named,
        "__name__": "isolated",
        "Any": Any,
    }


@functools.cache
def _test_file(path: str) -> dict[str, Any]:
    """The globals of a test file, compiled with pytest's assertion rewriting."""
    from _pytest.assertion.rewrite import rewrite_asserts

    source = Path(path).read_bytes()
    tree = ast.parse(source)
    rewrite_asserts(tree, source, path)
    names = {"__name__": Path(path).stem, "__file__": path}
    exec(compile(tree, path, "exec"), names)
    return names


def _reply_to(request: dict[str, Any], names: dict[str, Any]) -> dict[str, Any]:
    """Call the function of a request and return its value or its exception."""
    os.environ.clear()
    os.environ.update(request["environment"])
    try:
        if "file" in request:
            wrapper = _test_file(request["file"])[request["name"]]
            return {"value": wrapper.__wrapped__(**request["keywords"]), "error": None}
        flags = __future__.annotations.compiler_flag
        exec(compile(request["source"], "<isolated>", "exec", flags), names)
        return {"value": names[request["name"]](*request["arguments"]), "error": None}
    except BaseException as error:  # also SystemExit and KeyboardInterrupt
        report = "".join(traceback.format_exception(type(error), error, error.__traceback__))
        return {"value": None, "error": {**encode_exception(error), "report": report}}


def _serve() -> None:
    """Fork for each line of standard input, and write a line to standard output."""
    native_library.load()
    names = _names()
    for line in sys.stdin:
        request = json.loads(line)
        if "file" in request:
            _test_file(request["file"])  # before the fork, so that the later forks have it too
        with tempfile.TemporaryFile("w+") as result, tempfile.TemporaryFile("w+") as errors:
            gc.freeze()  # the collector of the fork skips the server's objects
            process = os.fork()
            if process == 0:
                os.dup2(errors.fileno(), sys.stdout.fileno())
                os.dup2(errors.fileno(), sys.stderr.fileno())
                signal.alarm(SECONDS)
                json.dump(_reply_to(request, names), result)
                result.flush()
                return
            _, status = os.waitpid(process, 0)
            result.seek(0)
            errors.seek(0)
            reply = json.load(result) if status == 0 else {"errors": errors.read()}
        print(json.dumps({"status": status, **reply}), flush=True)


if __name__ == "__main__":
    _serve()
