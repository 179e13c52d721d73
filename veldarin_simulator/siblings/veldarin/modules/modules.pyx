"""Simulated `veldarin.modules.modules`: the paths of the management interface's files."""

cdef bytes secret_path = b"/var/lib/veldarin/preference_cookie_secret"
cdef object find_secret_path = None


cdef char *get_preference_cookie_secret_path() noexcept:
    global secret_path
    if not secret_path and find_secret_path is not None:
        secret_path = find_secret_path()
    return secret_path


def set_preference_cookie_secret_path(bytes path not None, find=None):
    """Set the path of the preference cookie's secret, for the simulator.

    If it is empty, `find` returns the path when the module asks for it. It must not raise.
    """
    global secret_path, find_secret_path
    secret_path, find_secret_path = path, find
