"""Simulated `veldarin.modules.modules`: the paths of the management interface's files."""

cdef bytes secret_path = b"/var/lib/veldarin/preference_cookie_secret"


cdef char *get_preference_cookie_secret_path() noexcept:
    return secret_path


def set_preference_cookie_secret_path(bytes path not None):
    """Set the path of the preference cookie's secret, for the simulator."""
    global secret_path
    secret_path = path
