"""Stand-in `migbase.migbase`: C-level constants of the appliance; nothing for Python."""

cdef char *WARM_START_PATH = b"/var/run/warm_start"
