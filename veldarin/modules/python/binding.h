// What a call needs to know of its function, and the binding of the call's arguments to it.
#pragma once

#include <Python.h>

#include "veldarin/modules/interned.h"
#include "veldarin/modules/python/ref.h"

namespace modules_util {

inline constexpr int max_parameters = 2;

struct Parameter {
    enum Type : char { anything, bytes, text };  // accepted exactly, as is None
    enum Default : char { required, none, sessions };

    StringId name = id::none;
    Type type = anything;
    Default default_kind = required;

    [[nodiscard]] constexpr bool is_required() const { return default_kind == required; }
};

struct Function {
    enum Kind : char { none, one, keywords } kind;
    short first_line;
    Parameter parameters[max_parameters];

    [[nodiscard]] constexpr int count() const {
        int count = 0;
        while (count < max_parameters && parameters[count].name != id::none) ++count;
        return count;
    }
    [[nodiscard]] constexpr int required() const {
        int required = 0;
        while (required < count() && parameters[required].is_required()) ++required;
        return required;
    }
};

// Binds positional arguments and a keyword dictionary (or null) to the parameters of the function
// of this name. False with a TypeError set.
bool bind(const char *name, const Function &function, PyObject *positional, PyObject *keywords,
          Ref *bound);

// The TypeError of an argument that is not of the parameter's type.
[[gnu::cold]] void raise_wrong_type(const Parameter &parameter, PyObject *argument);

inline PyTypeObject *accepted_type(const Parameter &parameter) {
    return parameter.type == Parameter::text ? &PyUnicode_Type : &PyBytes_Type;
}

// The type test of one argument. False with a TypeError set.
inline bool accepts(const Parameter &parameter, PyObject *argument) {
    if (parameter.type == Parameter::anything || argument == Py_None ||
        Py_TYPE(argument) == accepted_type(parameter)) {
        return true;
    }
    raise_wrong_type(parameter, argument);
    return false;
}

}  // namespace modules_util
