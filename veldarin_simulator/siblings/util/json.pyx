"""Stand-in `util.json`: JSON between Python and the appliance's native services.

`JSONObject` carries one json-c object. Native code reads and overwrites the pointer in the instance
and calls the method table; Python only makes instances.
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
    void simulator_watch(json_object *request)
    void simulator_note_release(json_object *held)
    json_object *simulator_blank()
    int simulator_is_blank(const json_object *value)


cdef object on_create = None
cdef object on_release = None


def observe(*, created=None, released=None):
    """Sets who is told of instances, for a workstation; `None`: nobody.

    `created(args)` comes first in `JSONObject(*args)`; `released(text)` comes when native code calls
    the release, with the JSON text held, before the object is given up. An exception of either
    becomes the exception of the call.
    """
    global on_create, on_release
    on_create = created
    on_release = released


cdef class JSONObject:
    """`JSONObject(request)` holds the json-c object of a dict; `JSONObject()` holds a blank one.

    Keys are `str`; values `None`, `bool`, `int` (64 bits), `float`, `str`, `list`, `tuple` and `dict`.
    Anything else raises `TypeError`, an `int` of more bits `OverflowError`.
    """

    def __cinit__(self, *args):
        if on_create is not None:
            on_create(args)
        if not args:
            self.held = simulator_blank()
            return
        if len(args) != 1:
            raise TypeError(f"JSONObject() takes at most 1 argument ({len(args)} given)")
        if not isinstance(args[0], dict):
            raise TypeError(f"JSONObject() argument must be dict, not {type(args[0]).__name__}")
        self.held = made(json_object_new_object())
        simulator_watch(self.held)
        fill(self.held, args[0])

    def __dealloc__(self):
        give_up(self)

    def __str__(self):
        """The JSON text held."""
        return text_of(self).decode()

    cdef object release(self):
        simulator_note_release(self.held)
        if on_release is not None:
            on_release(text_of(self).decode("utf-8", "surrogateescape"))
        give_up(self)


cdef void give_up(JSONObject instance) noexcept:
    held = instance.held
    instance.held = NULL
    if not simulator_is_blank(held):
        json_object_put(held)


cdef bytes text_of(JSONObject instance):
    text = json_object_to_json_string(instance.held)
    if text == NULL:
        raise MemoryError
    return text


# A new json-c object (owned by the caller) for a value, containers empty; None is json-c's null.
cdef json_object *new_value(object value) except? NULL:
    if value is None:
        return NULL
    if isinstance(value, bool):
        return made(json_object_new_boolean(value))
    if isinstance(value, int):
        if INT64_MIN <= value <= INT64_MAX:
            return made(json_object_new_int64(value))
        return made(json_object_new_uint64(value))
    if isinstance(value, float):
        spelling = float.__repr__(value).encode()
        return made(json_object_new_double_s(value, spelling))
    if isinstance(value, str):
        return new_string(value)
    if isinstance(value, dict):
        return made(json_object_new_object())
    if isinstance(value, (list, tuple)):
        return made(json_object_new_array())
    raise TypeError(f"{type(value).__name__} has no JSON form")


cdef json_object *new_string(object value) except NULL:
    cdef Py_ssize_t size = 0
    text = PyUnicode_AsUTF8AndSize(value, &size)
    if size >= INT_MAX:
        raise OverflowError("text too long for json-c")
    return made(json_object_new_string_len(text, <int>size))


cdef json_object *made(json_object *value) except NULL:
    if value == NULL:
        raise MemoryError
    return value


# Members join their container before they are filled, so that whoever gives up the root gives up
# all, however far this came.
cdef void fill(json_object *target, object value) except *:
    Py_EnterRecursiveCall(b" while making a json-c object")
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
