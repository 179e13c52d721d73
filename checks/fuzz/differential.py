"""Compare the module with the reference model on one input.

Both must agree on the value, its types and the order of keys, or on the type and message of the
exception; on log lines, commands and the sessions in `list_bfd`. The module must free every buffer.
"""

from __future__ import annotations

import marshal
from contextlib import ExitStack
from typing import Any

from checks.fuzz.input_format import Sample, decode
from tests.support import reference
from veldarin_simulator import Simulator


class Log:
    """A logger that stores its lines with their levels."""

    def __init__(self) -> None:
        self.lines: list[tuple[str, object]] = []
        self.debug = lambda text: self.lines.append(("debug", text))
        self.error = lambda text: self.lines.append(("error", text))


class Implementation:
    """The module or the reference model, its input and its observable effects."""

    def __init__(self, parser: Any) -> None:
        self.parser = parser
        self._saved = {name: getattr(parser, name) for name in ("_logger", "_CHARSET")}
        self.log = parser._logger = Log()
        self.outputs: list[bytes | None] = [b""]
        self.commands: list[bytes] = []
        self.shared_sessions: dict[str, Any] = {}  # the default of `list_bfd`

    def run_command(self, command: bytes) -> bytes | None:
        """Return the next output."""
        self.commands.append(command)
        return self.outputs[(len(self.commands) - 1) % len(self.outputs)]

    def find_shared_sessions(self) -> None:
        """Get the default of `list_bfd`, which an output without sessions returns."""
        self.shared_sessions = self.parser.get_bfd_neighbor("")

    def restore(self) -> None:
        """Restore the globals."""
        self.shared_sessions.clear()
        for name, value in self._saved.items():
            setattr(self.parser, name, value)

    def outcome(self, sample: Sample) -> list[object]:
        """Call the function and return everything observable until the next call."""
        self.parser._CHARSET = sample.charset
        self.outputs = sample.outputs
        for container in (self.commands, self.log.lines, self.shared_sessions):
            container.clear()
        try:
            ended = self._call(sample)
        except Exception as error:
            ended = type(error).__name__, str(error)
        return [ended, self.commands, self.log.lines, self.shared_sessions]

    def _call(self, sample: Sample) -> object:
        function = getattr(self.parser, sample.function)
        if sample.function in ("get_routing_table_result", "get_cli_command_output"):
            return function(sample.argument)
        if sample.function == "get_bfd_neighbor":
            # Collects the sessions of several outputs, as list_bfd_neighbor does.
            sessions: dict[str, Any] = {}
            results = [function("command", sessions) for _output in sample.outputs]
            return [sessions, [result is sessions for result in results]]
        return function()


def serialize(outcome: list[object]) -> bytes:
    """Return bytes that differ if a value, its type or the order of keys differs.

    Version 0 of the format ignores whether objects are shared or interned.

    Raises:
        ValueError: A type has no code in the format, such as a subclass of str.
    """
    return marshal.dumps(outcome, 0)


class Comparison(ExitStack):
    """The module and the reference model on one simulator; a context manager."""

    def __enter__(self) -> Comparison:
        self.simulator = self.enter_context(Simulator(live=False))
        self.actual = Implementation(self.simulator.module)
        self.expected = Implementation(reference)
        self.callback(setattr, reference, "run", reference.run)
        self.simulator.set_reply("get_cli_cmd_output", self.actual.run_command)
        reference.run = self.expected.run_command
        for implementation in (self.actual, self.expected):
            implementation.find_shared_sessions()
            self.callback(implementation.restore)
        return self

    def check(self, data: bytes) -> None:
        """Check one input.

        Raises:
            AssertionError: The outcomes differ, or the module leaked a native object.
        """
        sample = decode(data)
        actual, expected = self.actual.outcome(sample), self.expected.outcome(sample)
        if serialize(actual) != serialize(expected):
            raise AssertionError(f"{sample}\nactual:   {actual}\nexpected: {expected}")
        live = self.simulator.live_objects
        if live.text_buffers or live.json_objects:
            raise AssertionError(f"{sample}\nnot freed: {live}")
        self.simulator.clear_calls()
