// The C-level interface of `util.json`: the layout of JSONObject, whose instances pass a json-c
// object between Python and the native services.
#pragma once

#include <Python.h>

struct json_object;  // defined by json-c

struct JSONObject;

struct JSONObjectVTable {
    // Gives up the json-c object. Returns a new reference, or null with an exception set.
    PyObject *(*release)(JSONObject *);
};

struct JSONObject {
    PyObject_HEAD const JSONObjectVTable *vtable;
    json_object *object;  // owned by the instance; null is the JSON value `null`
};
