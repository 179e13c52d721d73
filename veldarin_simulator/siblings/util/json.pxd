# The C-level interface of util.json, as the modules of the management interface import it.
cdef extern from "json-c/json.h":
    ctypedef struct json_object:
        pass


cdef class JSONObject:
    # Owned, unless it is the default response. A caller may replace the default response with
    # another object, which the instance then owns.
    cdef json_object *value

    # Drops the value.
    cdef object release(self)
