# The file that marks a warm start.
cdef char *WARM_START_PATH
