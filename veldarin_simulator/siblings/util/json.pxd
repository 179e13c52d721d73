# The C-level interface of util.json, as the modules of the management interface import it.
cdef extern from "json-c/json.h":
    ctypedef struct json_object:
        pass


cdef class JSONObject:
    # Owned, unless it is the blank of an instance made without argument. A caller may put another
    # object in place of a blank one; that one is then owned.
    cdef json_object *held

    # Gives up the held object.
    cdef object release(self)
