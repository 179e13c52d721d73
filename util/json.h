// The C-level interface of `util.json`: the instance layout of JSONObject, which carries one json-c
// object between Python and the native services.
#pragma once

#include <Python.h>

struct json_object;  // json-c's; opaque here

struct JSONObject;

struct JSONObjectVTable {
    // Gives up the held json-c object. A new reference, or null with an exception set.
    PyObject *(*release)(JSONObject *);
};

struct JSONObject {
    PyObject_HEAD const JSONObjectVTable *methods;
    json_object *object;  // owned by the instance; null is the JSON value `null`
};
