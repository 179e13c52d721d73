"""Simulated `migbase.migbase`: C-level constants; no Python names."""

cdef char *WARM_START_PATH = b"/var/run/warm_start"
