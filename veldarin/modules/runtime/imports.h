// Imports: Python names from modules, and from the sibling extension modules what they offer to C:
// a type with its method table, functions and variables behind capsules that carry their signature.
// Everything here fails with an exception set.
#pragma once

#include "names.h"
#include "ref.h"

namespace modules_util {

// Both halves of an import statement at module level, as the interpreter runs them: the call of the
// builtin __import__ with a tuple of names or None, and the binding of one name of its result.
Ref import_module(PyObject *module, PyObject *names_or_none);
Ref import_from(PyObject *source, PyObject *name);

// The type `module.name`, whose instances must be `size` bytes: a smaller instance is a ValueError,
// a larger one a RuntimeWarning, since a newer sibling may append fields.
Ref import_type(PyObject *module, PyObject *name, Py_ssize_t size);

// The C-level method table of a type; borrowed from it, null on failure.
void *import_method_table(PyObject *type);

// The C function or variable `name` of a sibling module; null on failure.
enum class CItem { function, variable };
void *import_c_item(CItem kind, PyObject *module, PyObject *name, const char *signature);

}  // namespace modules_util
