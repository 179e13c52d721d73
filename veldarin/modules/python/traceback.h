// Traceback entries. Every exception that leaves a function shows the function's dotted name, the
// source file and the line of the failing statement.
#pragma once

#include "veldarin/modules/python/ref.h"

namespace modules_util {

// The result of a failing function: null, an empty Ref or false, to match its return type.
struct ErrorResult {
    operator PyObject *() const { return nullptr; }  // NOLINT(google-explicit-constructor)
    operator Ref() const { return {}; }              // NOLINT(google-explicit-constructor)
    operator bool() const { return false; }          // NOLINT(google-explicit-constructor)
};

// Adds a traceback entry for the function that `line` belongs to, as in `return fail(at::parse)`.
// Without memory for the entry the exception stays as it is.
[[gnu::cold]] ErrorResult fail(int line);

// Adds the entry of a failing import. `globals` is the dictionary of the module that is imported.
void add_import_traceback(PyObject *globals, int line);

// Adds the entry of a function that may not have a code object yet. `globals` may be null.
void add_early_traceback(PyObject *globals, const char *function, int first_line);

// Creates the code object of a function; call it in the order of the function table. False with an
// exception set.
bool add_code_object(const char *function, int first_line);

}  // namespace modules_util
