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

// `except … as e`: takes the current exception and makes it the one being handled, as sys.exc_info
// shows it, for as long as this object lives. What is raised meanwhile gets it as its context.
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
    Ref type_, value_, traceback_;
    PyObject *outer_type_ = nullptr;  // the three of the handler around this one, owned
    PyObject *outer_value_ = nullptr;
    PyObject *outer_traceback_ = nullptr;
};

}  // namespace modules_util
