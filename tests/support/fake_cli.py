"""The appliance's command line as the parsers see it: texts for their commands, in place of the
native runner, for the native module and for its twin in plain Python alike."""

from __future__ import annotations

from typing import Any

import pytest

from tests.support.doubles import Recorder, RecordingLogger


class FakeCli:
    """Stands in `parser`, the native module or the twin, for what the parsers call."""

    def __init__(self, parser: Any, monkeypatch: pytest.MonkeyPatch) -> None:
        self.parser = parser
        self.monkeypatch = monkeypatch
        self.run = Recorder(lambda command: "")
        self.logger = RecordingLogger()
        self.patch("get_cli_command_output", self.run)
        self.patch("_logger", self.logger)
        # The one dictionary of all calls without `list_bfd`, as if nothing had been called yet.
        self.shared: dict[str, Any] = parser.get_bfd_neighbor("")
        self.shared.clear()
        self.run.calls.clear()

    def patch(self, name: str, value: object) -> None:
        """Another value for a global of the parser."""
        self.monkeypatch.setattr(self.parser, name, value)

    def delete(self, name: str) -> None:
        """Takes a global of the parser away."""
        self.monkeypatch.delattr(self.parser, name)

    def set_output(self, *lines: object) -> None:
        """What every command prints: lines, or one object that is no text."""
        output = lines[0]
        if len(lines) > 1:
            output = "\n".join(str(line) for line in lines)
        self.run.side_effect = lambda command: output

    def set_outputs(self, outputs: dict[str, Any]) -> None:
        """What the commands print; any other prints nothing."""
        self.run.side_effect = lambda command: outputs.get(command, "")

    @property
    def commands(self) -> list[object]:
        """The commands so far."""
        return [command for (command,) in self.run.positional]

    @property
    def debug_messages(self) -> list[str]:
        """The debug log so far; nothing is logged at another level."""
        assert self.logger.error.calls == []
        return self.logger.debug_messages
