"""`veldarin-simulator demo`: call all thirty functions on this machine.

It shows a newcomer that the module is built and works, the arguments and result of each function,
and which replies are live and which recorded.
"""

from __future__ import annotations

import os
import shutil
import socket
import sys
import unicodedata
from collections import Counter
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import Any, NamedTuple

from veldarin_simulator import Simulator, example_arguments
from veldarin_simulator.cli import common
from veldarin_simulator.cli.call import to_json
from veldarin_simulator.stub import Function

_DESCRIPTION = """\
Call every function of veldarin.modules.modules_util once and print a line for
each: number, call, source of the reply, value (shortened). The source is "live"
for this machine's own state, "recorded" for a scenario's, "no call" if the
function calls no native service. With --json, print a list with whole values.
"""
_EXIT_STATUS = "exit status: 0 all returned, 1 some raised, 2 usage"

_WIDTH_WITHOUT_TERMINAL = 140
_SOURCE_WIDTH = len("recorded")

_NO_CALL = "no call"
_RAISED = "raised"
_DIM, _BOLD = "2", "1"  # ANSI attributes
_STYLES = {"live": "32", "recorded": "33", _RAISED: "1;31"}


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


class DemoRow(NamedTuple):
    """A call and its outcome; `result` is None if it raised an exception."""

    name: str
    call: str
    source: str
    text: str
    result: Any


def create_parser() -> common.Parser:
    """Return the parser of the tool's arguments."""
    parser = common.Parser("demo", description=_DESCRIPTION, epilog=_EXIT_STATUS)
    parser.add_argument("--json", action="store_true", help="print JSON")
    common.add_scenario(parser)
    return parser


def main(arguments: list[str]) -> int:
    """Run the tool and return its exit status."""
    options = create_parser().parse_args(arguments)
    with (
        common.open_simulator(options.scenario) as simulator,
        # The prefix explains the certificate's path in the output.
        TemporaryDirectory(prefix="temporary-") as folder,
    ):
        common.persist_secret(simulator)
        context = DemoContext(simulator, Path(folder))
        rows = [_call(context, function) for function in common.load_functions().values()]
    if options.json:
        print(to_json([_describe(row) for row in rows]))
    else:
        _print_table(rows)
    return common.EXIT_FAILURE if any(row.source == _RAISED for row in rows) else 0


def _describe(row: DemoRow) -> dict[str, Any]:
    outcome = {"error": row.text} if row.source == _RAISED else {"result": row.result}
    return {"function": row.name, "call": row.call, "source": row.source, **outcome}


def _print_table(rows: list[DemoRow]) -> None:
    terminal = sys.stdout.isatty()
    styled = terminal and "NO_COLOR" not in os.environ

    def style(text: str, code: str) -> str:
        return f"\x1b[{code}m{text}\x1b[0m" if styled else text

    width = shutil.get_terminal_size().columns if terminal else _WIDTH_WITHOUT_TERMINAL
    call_width = min(max(len(row.call) for row in rows), width * 3 // 8)
    value_width = width - len("12  ") - call_width - len("  ") - _SOURCE_WIDTH - len("  ")
    print(style(f"veldarin.modules.modules_util on {socket.gethostname()}"[:width], _BOLD))
    for number, row in enumerate(rows, 1):
        call, value = _cut(row.call, call_width), _cut(row.text.replace("\n", " "), value_width)
        padding = " " * (call_width - _columns(call))
        source = style(f"{row.source:<{_SOURCE_WIDTH}}", _STYLES.get(row.source, _DIM))
        print(f"{style(f'{number:>2}', _DIM)}  {call}{padding}  {source}  {value}".rstrip())
    sources = Counter(row.source for row in rows)
    counts = ", ".join(f"{count} {source}" for source, count in sources.most_common())
    print(style(f"{len(rows)} functions: {counts}"[:width], _BOLD))


def _columns(text: str) -> int:
    """Return the width of a text on a terminal, where some characters take two columns."""
    return len(text) + sum(unicodedata.east_asian_width(char) in "WF" for char in text)


def _cut(text: str, width: int) -> str:
    """Return as much of a text as fits, with an ellipsis in place of the rest."""
    text = text[: max(width, 0) + 1]
    if _columns(text) <= width:
        return text
    while text and _columns(text) >= width:
        text = text[:-1]
    return f"{text}…"


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
        return DemoRow(name, call, _RAISED, f"{type(error).__name__}: {error}", None)
    if name == "get_token":
        # It reads a file instead of calling a native service; the secret stays hidden.
        hidden = f"{result[:8]!r}…"
        text = f"{hidden} ({len(result)} characters, in {simulator.secret_path})"
        return DemoRow(name, call, "live", text, hidden)
    sources = {entry.source for entry in simulator.call_log} - {"none"}
    return DemoRow(name, call, "+".join(sorted(sources)) or _NO_CALL, repr(result), result)
