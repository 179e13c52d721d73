// Raises exceptions whose messages several functions share, and handles exceptions.
#pragma once

#include "veldarin/modules/interned.h"
#include "veldarin/modules/python/ref.h"
#include "veldarin/modules/python/traceback.h"

namespace modules_util {

// Raises IndexError for a list index and adds the traceback entry of the statement at `line`.
[[gnu::cold]] ErrorResult fail_with_index_error(int line);

void raise_not_bytes(PyObject *object);
void raise_unbound_local(const char *variable);
void raise_undefined_name(PyObject *name);

// raise exception(message), where `exception` is a global name.
void raise_from_global(StringId exception, PyObject *message);

// `except ... as e`: takes the current exception. While this object lives, it is the exception that
// the running frame (or its generator) handles: sys.exc_info() shows it, and exceptions that are
// raised get it as their context.
class HandledException {
public:
    HandledException();
    ~HandledException();
    HandledException(const HandledException &) = delete;
    HandledException &operator=(const HandledException &) = delete;

    [[nodiscard]] PyObject *type() const { return type_.get(); }
    [[nodiscard]] PyObject *value() const { return value_.get(); }
    [[nodiscard]] PyObject *traceback() const { return traceback_ ? traceback_.get() : Py_None; }
    void reraise();

private:
    // Swaps the exception that the frame itself handles with the saved one. PyErr_GetExcInfo would
    // return that of the nearest caller that handles one.
    void swap_handled();

    Ref type_, value_, traceback_;
    _PyErr_StackItem saved_ = {};  // owns its three objects; its link is unused
};

}  // namespace modules_util
