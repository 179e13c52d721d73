"""The management interface."""
