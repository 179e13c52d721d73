// Functions as rows: name, parameters and body; and the binding of a call's arguments to them.
#pragma once

#include <Python.h>

#include "names.h"
#include "ref.h"

namespace modules_util {

inline constexpr int most_parameters = 2;

struct Parameter {
    Name name = nullptr;
    PyTypeObject *type = nullptr;         // accepted exactly, as is None; null: anything
    PyObject *const *fallback = nullptr;  // the default; null: required
};

struct Function {
    enum Kind { none, one, keywords } kind;
    const char *name;
    Parameter parameters[most_parameters];
    PyObject *(*body)(PyObject *const *arguments);  // borrowed; a new reference or null
    int first_line;

    [[nodiscard]] constexpr int count() const {
        int count = 0;
        while (count < most_parameters && parameters[count].name) ++count;
        return count;
    }
    [[nodiscard]] constexpr int required() const {
        int required = 0;
        while (required < count() && !parameters[required].fallback) ++required;
        return required;
    }
};

// Binds positional arguments and a keyword dictionary (or null) to the parameters. False with a
// TypeError set.
bool bind(const Function &function, PyObject *positional, PyObject *keywords, Ref *bound);

// The type test of one argument. False with a TypeError set.
inline bool accepts(const Parameter &parameter, PyObject *argument) {
    if (!parameter.type || Py_TYPE(argument) == parameter.type || argument == Py_None) return true;
    PyErr_Format(PyExc_TypeError,
                 "Argument '%.200U' has incorrect type (expected %.200s, got %.200s)",
                 names.*parameter.name, parameter.type->tp_name, Py_TYPE(argument)->tp_name);
    return false;
}

}  // namespace modules_util
