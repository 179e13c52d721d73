"""Simulated `util.json`: JSON between Python and the native services.

A `JSONObject` carries one json-c object. Native code reads and overwrites the pointer in the
instance and calls the method table; Python only creates instances.
"""
from libc.limits cimport INT_MAX
from libc.stdint cimport INT64_MAX, INT64_MIN, int64_t, uint64_t

from util.json cimport json_object


cdef extern from "Python.h":
    int Py_EnterRecursiveCall(const char *where) except *  # 3.9 fails with 1, not -1
    void Py_LeaveRecursiveCall()
    const char *PyUnicode_AsUTF8AndSize(object text, Py_ssize_t *size) except NULL


cdef extern from "json-c/json.h":
    json_object *json_object_new_object()
    json_object *json_object_new_array()
    json_object *json_object_new_boolean(bint value)
    json_object *json_object_new_int64(int64_t value)
    json_object *json_object_new_uint64(uint64_t value)
    json_object *json_object_new_double_s(double value, const char *text)
    json_object *json_object_new_string_len(const char *text, int size)
    int json_object_object_add(json_object *target, const char *key, json_object *value)
    int json_object_array_add(json_object *target, json_object *value)
    const char *json_object_to_json_string(json_object *value)
    int json_object_put(json_object *value)


cdef extern from "simulator.h":
    void simulator_track_request(json_object *request)
    void simulator_log_release(json_object *value)
    json_object *simulator_default_response()
    int simulator_is_default_response(const json_object *value)


cdef object on_create = None
cdef object on_release = None


def set_hooks(*, created=None, released=None):
    """Set the functions that the simulator calls for instances, or None.

    `JSONObject(*args)` calls `created(args)` first. The method-table release calls
    `released(text)`, with the JSON text of the value, before it drops the value. An exception of a
    hook becomes the exception of the call.
    """
    global on_create, on_release
    on_create = created
    on_release = released


cdef class JSONObject:
    """`JSONObject(request)` holds the json-c object of a dict, `JSONObject()` the default response.

    Keys are `str`; values `None`, `bool`, `int`, `float`, `str`, `list`, `tuple` and `dict`.

    Raises:
        TypeError: A key or value has another type.
        OverflowError: An `int` has more than 64 bits.
    """

    def __cinit__(self, *args):
        if on_create is not None:
            on_create(args)
        if not args:
            self.value = simulator_default_response()
            return
        if len(args) != 1:
            raise TypeError(f"JSONObject() takes at most 1 argument ({len(args)} given)")
        if not isinstance(args[0], dict):
            raise TypeError(f"JSONObject() argument must be dict, not {type(args[0]).__name__}")
        self.value = check_memory(json_object_new_object())
        simulator_track_request(self.value)
        fill(self.value, args[0])

    def __dealloc__(self):
        drop_reference(self)

    def __str__(self):
        """Return the JSON text of the value."""
        return json_text(self).decode()

    cdef object release(self):
        simulator_log_release(self.value)
        if on_release is not None:
            on_release(json_text(self).decode("utf-8", "surrogateescape"))
        drop_reference(self)


cdef void drop_reference(JSONObject instance) noexcept:
    value = instance.value
    instance.value = NULL
    if not simulator_is_default_response(value):
        json_object_put(value)


cdef bytes json_text(JSONObject instance):
    text = json_object_to_json_string(instance.value)
    if text == NULL:
        raise MemoryError
    return text


# Returns a new json-c object, which the caller owns, with containers left empty; None is null.
cdef json_object *new_value(object value) except? NULL:
    if value is None:
        return NULL
    if isinstance(value, bool):
        return check_memory(json_object_new_boolean(value))
    if isinstance(value, int):
        if INT64_MIN <= value <= INT64_MAX:
            return check_memory(json_object_new_int64(value))
        return check_memory(json_object_new_uint64(value))
    if isinstance(value, float):
        spelling = float.__repr__(value).encode()
        return check_memory(json_object_new_double_s(value, spelling))
    if isinstance(value, str):
        return new_string(value)
    if isinstance(value, dict):
        return check_memory(json_object_new_object())
    if isinstance(value, (list, tuple)):
        return check_memory(json_object_new_array())
    raise TypeError(f"{type(value).__name__} has no JSON form")


cdef json_object *new_string(object value) except NULL:
    cdef Py_ssize_t size = 0
    text = PyUnicode_AsUTF8AndSize(value, &size)
    if size >= INT_MAX:
        raise OverflowError("text too long for json-c")
    return check_memory(json_object_new_string_len(text, <int>size))


cdef json_object *check_memory(json_object *value) except NULL:
    if value == NULL:
        raise MemoryError
    return value


# Adds members to their container before it fills them, so that dropping the root drops all of them
# after an error.
cdef void fill(json_object *target, object value) except *:
    Py_EnterRecursiveCall(b" while creating a json-c object")
    try:
        if isinstance(value, dict):
            fill_object(target, value)
        elif isinstance(value, (list, tuple)):
            fill_array(target, value)
    finally:
        Py_LeaveRecursiveCall()


cdef void fill_object(json_object *target, object value) except *:
    for key, item in value.items():
        if not isinstance(key, str):
            raise TypeError(f"JSON keys must be str, not {type(key).__name__}")
        name = PyUnicode_AsUTF8AndSize(key, NULL)
        member = new_value(item)
        if json_object_object_add(target, name, member) != 0:
            json_object_put(member)
            raise MemoryError
        fill(member, item)


cdef void fill_array(json_object *target, object value) except *:
    for item in value:
        element = new_value(item)
        if json_object_array_add(target, element) != 0:
            json_object_put(element)
            raise MemoryError
        fill(element, item)
