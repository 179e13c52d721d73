# The path of the file with the preference cookie's secret; never null, owned by this module.
cdef char *get_preference_cookie_secret_path() noexcept
