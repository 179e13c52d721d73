// Describes a function's parameters and binds a call's arguments to them.
#pragma once

#include <Python.h>

#include "veldarin/modules/interned.h"
#include "veldarin/modules/python/ref.h"

namespace modules_util {

inline constexpr int max_parameters = 2;

struct Parameter {
    enum Type : char { anything, bytes, text };  // exactly this type, or None
    enum Default : char { required, none, shared_dict };

    StringId name = id::none;
    Type type = anything;
    Default default_kind = required;
};

struct Function {
    enum Kind : char { no_args, one_arg, keywords } kind;
    short first_line;
    short count = 0;     // parameters
    short required = 0;  // the first of them, which have no default
    Parameter parameters[max_parameters] = {};

    // The same function with one more parameter.
    [[nodiscard]] constexpr Function with(Parameter parameter) const {
        Function result = *this;
        result.parameters[result.count++] = parameter;
        if (parameter.default_kind == Parameter::required) ++result.required;
        return result;
    }
};

// Binds positional arguments and a keyword dictionary (or null) to the parameters of the function
// called `name`; `shared_dict` is the default of a parameter of that kind. False with a TypeError
// set.
bool bind(const char *name, const Function &function, PyObject *positional, PyObject *keywords,
          PyObject *shared_dict, Ref *bound);

// Sets the TypeError for an argument that does not have the parameter's type.
[[gnu::cold]] void raise_wrong_type(const Parameter &parameter, PyObject *argument);

inline PyTypeObject *accepted_type(const Parameter &parameter) {
    return parameter.type == Parameter::text ? &PyUnicode_Type : &PyBytes_Type;
}

// Tests the type of one argument. False with a TypeError set.
inline bool accepts(const Parameter &parameter, PyObject *argument) {
    if (parameter.type == Parameter::anything || argument == Py_None ||
        Py_TYPE(argument) == accepted_type(parameter)) {
        return true;
    }
    raise_wrong_type(parameter, argument);
    return false;
}

}  // namespace modules_util
