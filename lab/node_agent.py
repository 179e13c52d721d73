"""Calls the module in a node, through a process that runs there for the node's life.

The process keeps a live simulator open, so that the module's state lasts between calls as it does
in the management process. Each request and each result is one line of JSON.
"""

from __future__ import annotations

import json
import select
import subprocess
import sys
from dataclasses import dataclass
from typing import Any

from veldarin_simulator import Simulator

_TIMEOUT = 30.0  # seconds
_CLI = "get_cli_cmd_output"


class NodeError(RuntimeError):
    """A call in a node failed."""


@dataclass(frozen=True)
class CallResult:
    """The return value of a call or its exception's name, and the sources of native replies."""

    value: Any
    error: str | None
    sources: list[str]


class NodeAgent:
    """The process in a node, which `command_prefix` enters."""

    def __init__(self, command_prefix: list[str]) -> None:
        self._process = subprocess.Popen(
            [*command_prefix, sys.executable, "-m", "lab.node_agent"],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            start_new_session=True,
        )

    def call(self, function: str, *arguments: object, output: str | None = None) -> CallResult:
        """Call a function; `output` replaces the live output of every command."""
        assert self._process.stdin is not None
        assert self._process.stdout is not None
        request = {"function": function, "arguments": arguments, "output": output}
        print(json.dumps(request), file=self._process.stdin, flush=True)
        if not select.select([self._process.stdout], [], [], _TIMEOUT)[0]:
            raise NodeError(f"{function} did not return within {_TIMEOUT:.0f} s")
        line = self._process.stdout.readline()
        if not line:
            raise NodeError(f"{function} ended the process, status {self._process.wait(_TIMEOUT)}")
        return CallResult(**json.loads(line))

    def call_live(self, function: str, *arguments: object) -> Any:
        """Return the value of a call for which all native replies were live.

        Raises:
            NodeError: The call raised an exception, or a reply was not live.
        """
        result = self.call(function, *arguments)
        if result.error is not None or set(result.sources) != {"live"}:
            raise NodeError(f"{function}{arguments}: {result}")
        return result.value

    def close(self) -> None:
        """End the process."""
        for pipe in (self._process.stdin, self._process.stdout):
            if pipe is not None:
                pipe.close()
        self._process.wait(_TIMEOUT)


def _serve() -> None:
    with Simulator() as simulator:
        for line in sys.stdin:
            request = json.loads(line)
            output = request["output"]
            simulator.reset_reply(_CLI)
            if output is not None:
                simulator.set_reply(_CLI, output)
            simulator.clear_calls()
            value = error = None
            try:
                value = getattr(simulator.module, request["function"])(*request["arguments"])
            except Exception as exception:
                error = type(exception).__name__
            simulator.raise_errors()
            sources = [call.source for call in simulator.call_log]
            print(json.dumps({"value": value, "error": error, "sources": sources}), flush=True)


if __name__ == "__main__":
    _serve()
