"""Helpers that the management interface's modules share."""
