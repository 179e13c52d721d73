// Exceptions: the texts that several functions share, and the exception that a handler works on.
#pragma once

#include "ref.h"
#include "traceback.h"

namespace modules_util {

// The IndexError of the statement at `line`.
[[gnu::cold]] Failed index_error(int line);

void raise_not_bytes(PyObject *object);
void raise_unbound_local(const char *variable);
void raise_undefined_name(PyObject *name);

// raise exception(message), with the class looked up as a global name.
void raise_global(PyObject *exception, PyObject *message);

// `except … as e`: takes the current exception and makes it the one that the running frame (or its
// generator) handles, as sys.exc_info shows it, for as long as this object lives. Exceptions that
// are raised meanwhile get it as their context.
class Handled {
public:
    Handled();
    ~Handled();
    Handled(const Handled &) = delete;
    Handled &operator=(const Handled &) = delete;

    [[nodiscard]] PyObject *type() const { return type_.get(); }
    [[nodiscard]] PyObject *value() const { return value_.get(); }
    [[nodiscard]] PyObject *traceback() const { return traceback_ ? traceback_.get() : Py_None; }
    void raise_again();

private:
    // Exchanges the frame's own exception for the saved one. PyErr_GetExcInfo would give that of
    // the nearest caller which handles one.
    void swap_handled();

    Ref type_, value_, traceback_;
    _PyErr_StackItem saved_ = {};  // owned; its link to other items is not used
};

}  // namespace modules_util
