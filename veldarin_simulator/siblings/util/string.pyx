"""Simulated `util.string`: C-level text functions; no Python names."""
from libc.string cimport memcpy


cdef extern from "string.h":
    size_t strnlen(const char *text, size_t size)


cdef int strtcpy(char *destination, int size, const char *source) noexcept:
    if size < 1:
        return 0
    copied = <int>strnlen(source, size - 1)
    memcpy(destination, source, copied)
    destination[copied] = 0
    return copied
