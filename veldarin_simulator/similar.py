"""Suggestions for a name that does not exist: names that contain it or resemble it."""

from __future__ import annotations

import difflib
from collections.abc import Iterable

_MAX_NAMES = 3
_MIN_PART = 3  # characters; a shorter word is part of most names


def similar(word: str, names: Iterable[str]) -> list[str]:
    """Return names that contain the word, or that resemble it as a whole or in one part.

    The parts of a name are separated by "_": "lldb" resembles `list_switch_lldp_state`.
    """
    names = list(names)
    word = word.lower()
    if len(word) >= _MIN_PART:
        containing = [name for name in names if word in name.lower()]
        if containing:
            return containing
    whole = difflib.get_close_matches(word, names, _MAX_NAMES)
    if whole or "_" in word:
        return whole
    parts = {part for name in names for part in name.lower().split("_")}
    near = {*difflib.get_close_matches(word, parts, 1, cutoff=0.7)}
    return [name for name in names if near & {*name.lower().split("_")}]


def did_you_mean(word: str, names: Iterable[str]) -> str:
    """Return "did you mean NAME, NAME or NAME?", or "" if no name is similar."""
    *others, last = ["", *similar(word, names)[:_MAX_NAMES]]
    others = others[1:]
    if not last:
        return ""
    return f"did you mean {', '.join(others)}{' or ' if others else ''}{last}?"
