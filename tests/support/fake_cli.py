"""Fake command line for the parsers of the module and of the reference model."""

from __future__ import annotations

import sys
from typing import Any

import pytest

from tests.support.doubles import Recorder, RecordingLogger
from tests.support.module_patch import Patch


class FakeCli:
    """Replace the command runner and the logger of `parser`, the module or the reference model."""

    def __init__(self, parser: Any, monkeypatch: pytest.MonkeyPatch) -> None:
        self.parser, self.monkeypatch = parser, monkeypatch
        self.patch = Patch(parser, monkeypatch)
        self.delete = self.patch.delete
        self.run = Recorder(lambda command: "")
        self.logger = RecordingLogger()
        self.patch("get_cli_command_output", self.run)
        self.patch("_logger", self.logger)
        # The shared default of `list_bfd`, emptied.
        self.shared: dict[str, Any] = parser.get_bfd_neighbor("")
        self.shared.clear()
        self.run.calls.clear()

    def set_output(self, *lines: object) -> None:
        """Set the output of every command: lines, or one object of any type."""
        output = lines[0]
        if len(lines) > 1:
            output = "\n".join(str(line) for line in lines)
        self.run.side_effect = lambda command: output

    def set_outputs(self, outputs: dict[str, Any]) -> None:
        """Set the output of each command; other commands print nothing."""
        self.run.side_effect = lambda command: outputs.get(command, "")

    def collect_handled(self) -> list[Any]:
        """Return a list that gets the exceptions that the parser handles while it logs."""
        handled: list[Any] = []
        self.logger.debug.side_effect = lambda _message: handled.append(sys.exc_info()[1])
        return handled

    @property
    def commands(self) -> list[object]:
        """The commands so far."""
        return [command for (command,) in self.run.positional]

    @property
    def debug_messages(self) -> list[str]:
        """The debug messages so far; fails if an error was logged."""
        assert self.logger.error.calls == []
        return self.logger.debug_messages
