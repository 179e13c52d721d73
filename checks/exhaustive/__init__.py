"""Exhaustive checks: every short text, compared with Python."""
