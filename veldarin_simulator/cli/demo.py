"""`python -m veldarin_simulator demo`: call all thirty functions on this machine.

It shows a newcomer that the module is built and works, the arguments and result of each function,
and which replies are live and which recorded.
"""

from __future__ import annotations

import os
import socket
import sys
from collections import Counter
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import Any, NamedTuple

from rich.console import Console
from rich.text import Text

from veldarin_simulator import Simulator, example_arguments
from veldarin_simulator.cli import common
from veldarin_simulator.stub import Function

_DESCRIPTION = """\
Call every function of veldarin.modules.modules_util once and print a line for
each: number, call, source of the reply, value (shortened). The source is "live"
for this machine's own state, "recorded" for a scenario's, "no call" if the
function calls no native service.
"""
_EXIT_STATUS = "exit status: 0 all returned, 1 some raised, 2 usage"

_WIDTH_WITHOUT_TERMINAL = 140
_SOURCE_WIDTH = len("recorded")
_MAX_VALUE = 400  # characters, before the width of the line cuts it

_NO_CALL = "no call"
_RAISED = "raised"
_STYLES = {"live": "green", "recorded": "yellow", _RAISED: "bold red"}


class DemoContext:
    """The simulator, and a directory for files that exist during the demo."""

    def __init__(self, simulator: Simulator, folder: Path) -> None:
        self.simulator = simulator
        self._folder = folder

    def example_call(self, function: Function) -> tuple[list[Any], dict[str, Any]]:
        """Return arguments that fit this machine."""
        example = example_arguments.example_call(self.simulator, function)
        if function.name != "check_cert_expiration" or Path(os.fsdecode(example[0][0])).is_file():
            return example
        from veldarin_simulator.cli import self_signed  # slow to import

        path = self._folder / "certificate.pem"
        path.write_bytes(self_signed.certificate())
        return [os.fsencode(path)], {}


class _Screen(Console):
    """A console that does not handle a closed pipe itself."""

    def on_broken_pipe(self) -> None:
        """Raise instead of exiting."""
        raise BrokenPipeError


class DemoRow(NamedTuple):
    """A call and its result, as text."""

    call: str
    source: str
    value: str

    def line(self, number: int, call_width: int) -> Text:
        """Return the line; the value is last, so that the screen may cut it."""
        call = Text(self.call)
        call.truncate(call_width, overflow="ellipsis", pad=True)
        source = Text(f"  {self.source:<{_SOURCE_WIDTH}}  ", _STYLES.get(self.source, "dim"))
        value = Text(self.value.replace("\n", " "))
        return Text.assemble((f"{number:>2}  ", "dim"), call, source, value)


def main(arguments: list[str]) -> int:
    """Run the tool and return its exit status."""
    parser = common.Parser("demo", description=_DESCRIPTION, epilog=_EXIT_STATUS)
    common.add_scenario(parser)
    options = parser.parse_args(arguments)
    with (
        common.open_simulator(options.scenario) as simulator,
        # The prefix explains the certificate's path in the output.
        TemporaryDirectory(prefix="temporary-") as folder,
    ):
        common.persist_secret(simulator)
        return run_demo(DemoContext(simulator, Path(folder)))


def run_demo(context: DemoContext) -> int:
    """Call all functions, print the rows, and return the exit status."""
    rows = [_call(context, function) for function in common.load_functions().values()]
    sources = Counter(row.source for row in rows)
    width = None if sys.stdout.isatty() else _WIDTH_WITHOUT_TERMINAL
    screen = _Screen(width=width, highlight=False)
    call_width = min(max(len(row.call) for row in rows), screen.width * 3 // 8)
    screen.print(f"veldarin.modules.modules_util on {socket.gethostname()}", style="bold")
    for number, row in enumerate(rows, 1):
        screen.print(row.line(number, call_width), no_wrap=True, overflow="ellipsis", crop=True)
    counts = ", ".join(f"{count} {source}" for source, count in sources.most_common())
    screen.print(f"{len(rows)} functions: {counts}", style="bold")
    return common.EXIT_FAILURE if sources[_RAISED] else 0


def _call(context: DemoContext, function: Function) -> DemoRow:
    simulator, name = context.simulator, function.name
    call = f"{name}(…)"
    try:
        positional, keywords = context.example_call(function)
        shown = [*map(repr, positional), *(f"{key}={value!r}" for key, value in keywords.items())]
        call = f"{name}({', '.join(shown)})"
        simulator.clear_calls()
        result = getattr(simulator.module, name)(*positional, **keywords)
        simulator.raise_errors()
    except Exception as error:
        return DemoRow(call, _RAISED, f"{type(error).__name__}: {error}")
    if name == "get_token":
        # It reads a file instead of calling a native service; the secret stays hidden.
        secret = f"{result[:8]!r}… ({len(result)} characters, in {simulator.secret_path})"
        return DemoRow(call, "live", secret)
    sources = {entry.source for entry in simulator.call_log} - {"none"}
    return DemoRow(call, "+".join(sorted(sources)) or _NO_CALL, repr(result)[:_MAX_VALUE])
