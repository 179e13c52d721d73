"""The module in a node: a process there that answers calls, and the face of it outside.

The process has a live stand-in appliance open for as long as it runs, so that what the module
keeps between calls is kept as in the management process. A request and its answer are a line of
JSON each.
"""

from __future__ import annotations

import json
import select
import subprocess
import sys
from dataclasses import dataclass
from typing import Any

from veldarin_simulator import Simulator

_SECONDS = 30.0
_COMMAND_LINE = "get_cli_cmd_output"


class NodeError(RuntimeError):
    """The process in the node gave no answer."""


@dataclass(frozen=True)
class Said:
    """What a function of the module returned, or the name of the exception that ended it; and where
    the outputs of the commands came from."""

    value: Any
    error: str | None
    sources: list[str]


class Inside:
    """Calls the module in a node. `enter` is the beginning of a command that runs there."""

    def __init__(self, enter: list[str]) -> None:
        self._process = subprocess.Popen(
            [*enter, sys.executable, "-m", "lab.node_agent"],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            start_new_session=True,
        )

    def call(self, function: str, *arguments: object, output: str | None = None) -> Said:
        """Calls a function; `output` is then what every command prints, in place of the live
        answer."""
        assert self._process.stdin is not None
        assert self._process.stdout is not None
        request = {"function": function, "arguments": arguments, "output": output}
        print(json.dumps(request), file=self._process.stdin, flush=True)
        if not select.select([self._process.stdout], [], [], _SECONDS)[0]:
            raise NodeError(f"{function} did not return within {_SECONDS:.0f} s")
        answer = self._process.stdout.readline()
        if not answer:
            raise NodeError(f"{function} ended the process, status {self._process.wait(_SECONDS)}")
        return Said(**json.loads(answer))

    def live(self, function: str, *arguments: object) -> Any:
        """What a function returns on live answers alone."""
        said = self.call(function, *arguments)
        if said.error is not None or set(said.sources) != {"live"}:
            raise NodeError(f"{function}{arguments}: {said}")
        return said.value

    def close(self) -> None:
        """Ends the process."""
        for pipe in (self._process.stdin, self._process.stdout):
            if pipe is not None:
                pipe.close()
        self._process.wait(_SECONDS)


def _serve() -> None:
    with Simulator() as simulator:
        for line in sys.stdin:
            request = json.loads(line)
            output = request["output"]
            simulator.reset_reply(_COMMAND_LINE)
            if output is not None:
                simulator.set_reply(_COMMAND_LINE, output)
            simulator.clear_calls()
            value = error = None
            try:
                value = getattr(simulator.module, request["function"])(*request["arguments"])
            except Exception as raised:
                error = type(raised).__name__
            simulator.raise_errors()
            sources = [call.source for call in simulator.call_log]
            answer = {"value": value, "error": error, "sources": sources}
            print(json.dumps(answer), flush=True)


if __name__ == "__main__":
    _serve()
