# Copies NUL-terminated text into `destination`, at most `size` bytes with the closing NUL, and
# returns the number of bytes copied before it. A size below 1 writes nothing.
cdef int strtcpy(char *destination, int size, const char *source) noexcept
