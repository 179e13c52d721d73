// Imports Python names, and the C-level interfaces of the sibling extension modules: a type with
// its method table, and functions and variables in capsules named by their signatures. Every
// function fails with an exception set.
#pragma once

#include <Python.h>

#include "veldarin/modules/python/ref.h"

namespace modules_util {

// The two halves of an import statement at module level, as the interpreter runs them: call the
// builtin __import__ with a tuple of names or None, then get each name from its result.
Ref import_module(PyObject *module, PyObject *names_or_none);
Ref import_from(PyObject *source, PyObject *name);

// The type `module.name`, whose instances must have `size` bytes. Smaller instances are a
// ValueError, larger ones only a RuntimeWarning, because a newer sibling may append fields.
Ref import_type(PyObject *module, PyObject *name, Py_ssize_t size);

// Checks that a type has a C-level method table, which its instances refer to.
bool check_vtable(PyObject *type);

// The C function or variable `name` of a sibling module; null on failure.
enum class CapiItem { function, variable };
void *import_capsule(CapiItem kind, PyObject *module, PyObject *name, const char *signature);

}  // namespace modules_util
