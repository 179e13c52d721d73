// The `with` statement, as the interpreter runs it.
#pragma once

#include "errors.h"
#include "names.h"
#include "ref.h"
#include "state.h"
#include "traceback.h"

namespace modules_util {

// A special method: looked up on the type, bound to the object. AttributeError if there is none.
Ref special_method(PyObject *object, PyObject *name);

// Calls exit(type, value, traceback) for the current exception. True: it is swallowed. False: it
// goes on, or the exception that exit raised does, with an entry at `line`.
bool exit_with_exception(PyObject *exit, int line);

// with manager as file: body(file). The body returns false with an exception set, its entry
// included; so does this function, whose own statement is at `line`. True also for an exception
// that the manager swallowed.
template <typename Body>
bool with(PyObject *manager, int line, Body &&body) {
    const Ref enter = special_method(manager, names.dunder_enter);
    if (!enter) return failed(line);
    const Ref exit = special_method(manager, names.dunder_exit);
    if (!exit) return failed(line);
    const Ref file = Ref::steal(PyObject_CallNoArgs(enter.get()));
    if (!file) return failed(line);

    if (!body(file.get())) return exit_with_exception(exit.get(), line);

    const Ref left = Ref::steal(PyObject_Call(exit.get(), state.constants.three_nones, nullptr));
    return left || failed(line);
}

}  // namespace modules_util
