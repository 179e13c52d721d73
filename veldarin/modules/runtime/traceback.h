// Traceback entries: every exception that leaves a function shows the function's dotted name, the
// source file and the line of the statement that failed.
#pragma once

#include "ref.h"

namespace modules_util {

// What a function returns when it fails, whatever it returns when it succeeds.
struct Failed {
    operator PyObject *() const { return nullptr; }  // NOLINT(google-explicit-constructor)
    operator Ref() const { return {}; }              // NOLINT(google-explicit-constructor)
    operator bool() const { return false; }          // NOLINT(google-explicit-constructor)
};

// Ends a failing statement, as in `return failed(line)`: adds the entry of the function that `line`
// belongs to. Without memory for the entry the exception stays as it is.
[[gnu::cold]] Failed failed(int line);

// The entry of a failing import. `globals` is the dictionary of the module being imported.
void failed_import(PyObject *globals, int line);

// The entry of a function whose code object may not be made yet. `globals` may be null.
void failed_early(PyObject *globals, const char *function, int first_line);

// Makes the code object of a function, after those of all functions before it. False with an
// exception set.
bool add_code_object(const char *function, int first_line);

}  // namespace modules_util
