"""Patches of the module's globals, which last until the test ends."""

from __future__ import annotations

from types import ModuleType

import pytest


class Patch:
    """Rebind and delete globals of the module."""

    def __init__(self, module: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
        self._module, self._monkeypatch = module, monkeypatch

    def __call__(self, name: str, value: object) -> None:
        """Bind an existing global to another value."""
        self._monkeypatch.setattr(self._module, name, value)

    def delete(self, name: str) -> None:
        """Delete a global."""
        self._monkeypatch.delattr(self._module, name)
