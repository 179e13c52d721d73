"""Exceptions of the management interface."""

from __future__ import annotations


class CFunctionError(Exception):
    """A native function failed; the message names the function or the failure."""
