"""The module's own table of white space, compared with the interpreter's."""

from __future__ import annotations

import sys
from types import ModuleType

import pytest

CHUNK = 0x1000


def test_scanner_splits_at_white_space_of_str_isspace(
    module: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Every code point but the line break stands between two letters of a row's first column."""
    for first in range(0, sys.maxunicode + 1, CHUNK):
        characters = [chr(point) for point in range(first, first + CHUNK) if point != ord("\n")]
        rows = "\n".join(f"x{character}y 1 2 3" for character in characters)
        output = f"Address\n{rows}"
        monkeypatch.setattr(module, "get_cli_command_output", lambda _command, text=output: text)
        split = [row["ipAddress"] == "x" for row in module.get_system_arp_result()]
        assert split == [character.isspace() for character in characters]
