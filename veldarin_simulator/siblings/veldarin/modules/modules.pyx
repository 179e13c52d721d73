"""Stand-in `veldarin.modules.modules`: where the management interface keeps its files."""

cdef bytes secret_path = b"/var/lib/veldarin/preference_cookie_secret"


cdef char *get_preference_cookie_secret_path() noexcept:
    return secret_path


def set_preference_cookie_secret_path(bytes path not None):
    """Moves the secret of the preference cookie to another path, for a workstation."""
    global secret_path
    secret_path = path
