"""Fresh interpreter processes for tests of what happens once per process.

An import, a failed import, a second interpreter: none of them can be tried twice in the process
that runs the tests. `run` sends the source of one self-contained function to a new interpreter,
which loads the stand-in appliance's library, finds the staged modules, calls the function and
answers in JSON: the function's value or the exception that ended it.
"""

from __future__ import annotations
import __future__

import inspect
import json
import subprocess
import sys
import textwrap
from dataclasses import dataclass
from pathlib import Path
from sysconfig import get_config_var
from typing import Any, Callable

from tests.support.assertions import MODULE
from veldarin_simulator import native_library

__all__ = ["BUILD", "MODULE", "OTHER_RUNTIME", "PRODUCT", "ROOT", "Entry", "Error", "Outcome"]

ROOT = Path(__file__).resolve().parents[2]
BUILD = native_library.build_directory()
PRODUCT = BUILD.joinpath("stage", *MODULE.split(".")).with_suffix(get_config_var("EXT_SUFFIX"))
# The product's own objects, linked so that the interpreter seems to be another release, and so that
# comparisons can be made to fail.
OTHER_RUNTIME = BUILD / "wrong_python_version" / PRODUCT.name

SECONDS = 120  # far beyond any of these processes; a hang must end somewhere


@dataclass(frozen=True)
class Entry:
    """One traceback entry: where it points, and the `__name__` its frame's globals hold."""

    name: str
    file: str
    first_line: int
    line: int
    module: str | None


@dataclass(frozen=True)
class Error:
    """An exception that crossed the process boundary; `type` is the name of its class."""

    type: str
    bases: tuple[str, ...]
    text: str
    entries: tuple[Entry, ...]

    @classmethod
    def of(cls, described: dict[str, Any]) -> Error:
        """The exception that `describe` put into JSON."""
        entries = tuple(Entry(*entry) for entry in described["entries"])
        return cls(described["type"], tuple(described["bases"]), described["text"], entries)

    def named(self, name: str) -> list[Entry]:
        """The traceback entries of one function, outermost first."""
        return [entry for entry in self.entries if entry.name == name]


@dataclass(frozen=True)
class Outcome:
    """What a fresh process answered: a value, or the error that ended the function."""

    value: Any
    error: Error | None


def describe(error: BaseException) -> dict[str, Any]:
    """An exception with its traceback as JSON data; the functions under test may use it."""
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
    """Calls `function` in a new interpreter with `arguments`, which JSON must be able to carry.

    The function reaches only what it imports itself. A process that dies fails the test with all
    that it wrote to its standard error.
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
    answer = json.loads(process.stdout)
    return Outcome(answer["value"], Error.of(answer["error"]) if answer["error"] else None)


def value(function: Callable[..., object], *arguments: object) -> Any:
    """What `function` returns in a new interpreter; an exception there fails the test."""
    outcome = run(function, *arguments)
    assert outcome.error is None, outcome.error
    return outcome.value


def error(function: Callable[..., object], *arguments: object) -> Error:
    """The exception that ends `function` in a new interpreter; none there fails the test."""
    outcome = run(function, *arguments)
    assert outcome.error is not None, f"no exception, but the value {outcome.value!r}"
    return outcome.error


def _serve() -> None:
    """The new interpreter's side: a request from standard input, an answer to standard output."""
    request = json.load(sys.stdin)
    native_library.load()
    names: dict[str, Any] = {"__name__": "fresh", "Any": Any}
    exec(compile(request["source"], "<fresh>", "exec", __future__.annotations.compiler_flag), names)
    answer: dict[str, Any] = {"value": None, "error": None}
    try:
        answer["value"] = names[request["name"]](*request["arguments"])
    except BaseException as ended:  # whatever it is belongs to the answer
        answer["error"] = describe(ended)
    json.dump(answer, sys.stdout)


if __name__ == "__main__":
    _serve()
