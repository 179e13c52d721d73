"""One input given to the native module and to its twin in plain Python: they must agree on the
value, its types and the order of its keys, or the type and text of the exception; on the log lines,
the commands, and the sessions left behind; and the appliance gets every buffer back."""

from __future__ import annotations

from types import TracebackType
from typing import Any

from checks.fuzz.input_format import Sample, read
from tests.support import reference
from tests.support.assertions import with_types
from veldarin_simulator import Simulator


class Log:
    """A logger that keeps its lines."""

    def __init__(self) -> None:
        self.lines: list[tuple[str, object]] = []

    def debug(self, text: object) -> None:
        """Keeps a line."""
        self.lines.append(("debug", text))

    def error(self, text: object) -> None:
        """Keeps a line of another level."""
        self.lines.append(("error", text))


class Side:
    """The module or the twin, with what it is given and what it does."""

    def __init__(self, parser: Any) -> None:
        self.parser = parser
        self._before = {name: getattr(parser, name) for name in ("_logger", "_CHARSET")}
        self.log = parser._logger = Log()
        self.outputs: list[bytes | None] = [b""]
        self.commands: list[bytes] = []
        # The one of all calls without `list_bfd`; a text without sessions gives it as it is.
        self.shared: dict[str, Any] = {}

    def run(self, command: bytes) -> bytes | None:
        """Stands in for the appliance's command line."""
        self.commands.append(command)
        return self.outputs[(len(self.commands) - 1) % len(self.outputs)]

    def share(self) -> None:
        """Gets hold of the shared sessions, once commands are answered."""
        self.shared = self.parser.get_bfd_neighbor("")

    def restore(self) -> None:
        """The parser as it was."""
        self.shared.clear()
        for name, value in self._before.items():
            setattr(self.parser, name, value)

    def outcome(self, sample: Sample) -> list[object]:
        """All that can be seen of a call."""
        self.parser._CHARSET = sample.charset
        self.outputs = sample.outputs
        for kept in (self.commands, self.log.lines, self.shared):
            kept.clear()
        try:
            ended: object = with_types(self._call(sample))
        except Exception as error:
            ended = type(error).__name__, str(error)
        return [ended, self.commands[:], self.log.lines[:], with_types(self.shared)]

    def _call(self, sample: Sample) -> object:
        function = getattr(self.parser, sample.function)
        if sample.function in ("get_routing_table_result", "get_cli_command_output"):
            return function(sample.argument)
        if sample.function == "get_bfd_neighbor":
            # One command after the other into the same sessions, as the listing has it.
            sessions: dict[str, Any] = {}
            given = [function("command", sessions) for _output in sample.outputs]
            return [sessions, [each is sessions for each in given]]
        return function()


class Comparison:
    """The module and the twin on one appliance, until the context is left."""

    def __enter__(self) -> Comparison:
        self.simulator = Simulator(live=False).__enter__()
        self.ours, self.theirs = Side(self.simulator.module), Side(reference)
        self._runner = reference.run
        self.simulator.set_reply("get_cli_cmd_output", self.ours.run)
        reference.run = self.theirs.run
        self.ours.share()
        self.theirs.share()
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        reference.run = self._runner
        self.ours.restore()
        self.theirs.restore()
        self.simulator.__exit__(kind, error, traceback)

    def check(self, data: bytes) -> None:
        """`AssertionError`: they disagree, or a buffer is not freed."""
        sample = read(data)
        ours, theirs = self.ours.outcome(sample), self.theirs.outcome(sample)
        if ours != theirs:
            raise AssertionError(f"{sample}\nthe module: {ours}\nthe twin:   {theirs}")
        counts = self.simulator.live_objects
        if counts.text_buffers or counts.json_objects:
            raise AssertionError(f"{sample}\nnot freed: {counts}")
        self.simulator.clear_calls()
