// Binds arguments in this order: positional ones, each other parameter by its exact name, keywords
// that remain, defaults. Then it tests the types.
#include "veldarin/modules/python/binding.h"

#include <cstring>

namespace modules_util {

namespace {

// Longer names are truncated.
constexpr size_t max_name = 200;

bool raise_wrong_count(const char *name, const Function &function, Py_ssize_t given) {
    const bool too_many = given > function.count;
    const bool exact = function.count == function.required;
    const Py_ssize_t limit = too_many ? function.count : function.required;
    char start[2 * max_name];
    char *end = stpcpy(start, name);
    end = stpcpy(end, "() takes ");
    stpcpy(end, exact ? "exactly" : too_many ? "at most" : "at least");
    PyErr_Format(PyExc_TypeError, "%s %zd positional argument%s (%zd given)", start, limit,
                 limit == 1 ? "" : "s", given);
    return false;
}

// The index of the parameter that a keyword names, or -1.
int find_parameter(const Function &function, PyObject *keyword) {
    for (int i = 0; i < function.count; ++i) {
        if (PyUnicode_Compare(keyword, interned[function.parameters[i].name]) == 0) return i;
    }
    return -1;
}

// Checks every keyword in order, so that the first faulty one is reported. Binds a keyword that the
// exact lookup missed because its type, a subclass of str, compares or hashes differently.
bool check_keywords(const char *name, const Function &function, PyObject *keywords,
                    Py_ssize_t given, Ref *bound) {
    PyObject *keyword = nullptr;
    PyObject *value = nullptr;
    for (Py_ssize_t at = 0; PyDict_Next(keywords, &at, &keyword, &value);) {
        if (!PyUnicode_Check(keyword)) {
            PyErr_Format(PyExc_TypeError, "%.200s() keywords must be strings", name);
            return false;
        }
        const int index = find_parameter(function, keyword);
        if (PyErr_Occurred()) return false;
        if (index < 0) {
            PyErr_Format(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'", name,
                         keyword);
            return false;
        }
        if (index < given) {
            PyErr_Format(PyExc_TypeError, "%s() got multiple values for keyword argument '%U'",
                         name, keyword);
            return false;
        }
        if (!bound[index]) bound[index] = Ref::borrow(value);
    }
    return true;
}

bool bind_keywords(const char *name, const Function &function, PyObject *keywords, Py_ssize_t given,
                   Ref *bound) {
    Py_ssize_t left = PyDict_GET_SIZE(keywords);
    for (Py_ssize_t i = given; left > 0 && i < function.count; ++i) {
        PyObject *parameter = interned[function.parameters[i].name];
        bound[i] = Ref::borrow(PyDict_GetItemWithError(keywords, parameter));
        if (bound[i]) --left;
        else if (PyErr_Occurred()) return false;
    }
    return left == 0 || check_keywords(name, function, keywords, given, bound);
}

}  // namespace

void raise_wrong_type(const Parameter &parameter, PyObject *argument) {
    char message[4 * max_name];
    char *end = stpcpy(message, "Argument '");
    end = stpcpy(end, static_cast<const char *>(PyUnicode_DATA(interned[parameter.name])));
    end = stpcpy(end, "' has incorrect type (expected ");
    end = stpcpy(end, accepted_type(parameter)->tp_name);
    end = stpcpy(end, ", got ");
    end = stpncpy(end, Py_TYPE(argument)->tp_name, max_name);
    stpcpy(end, ")");
    PyErr_Format(PyExc_TypeError, "%s", message);
}

bool bind(const char *name, const Function &function, PyObject *positional, PyObject *keywords,
          PyObject *shared_dict, Ref *bound) {
    const Py_ssize_t given = PyTuple_GET_SIZE(positional);
    if (given > function.count) return raise_wrong_count(name, function, given);

    for (Py_ssize_t i = 0; i < given; ++i) {
        bound[i] = Ref::borrow(PyTuple_GET_ITEM(positional, i));
    }
    if (keywords && !bind_keywords(name, function, keywords, given, bound)) return false;

    for (Py_ssize_t i = given; i < function.count; ++i) {
        const Parameter &parameter = function.parameters[i];
        if (bound[i]) continue;
        if (parameter.default_kind == Parameter::required)
            return raise_wrong_count(name, function, given);
        bound[i] =
            Ref::borrow(parameter.default_kind == Parameter::shared_dict ? shared_dict : Py_None);
    }
    for (int i = 0; i < function.count; ++i) {
        if (!accepts(function.parameters[i], bound[i].get())) return false;
    }
    return true;
}

}  // namespace modules_util
