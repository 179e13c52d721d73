// The `with` statement, as the interpreter runs it.
#pragma once

#include "veldarin/modules/interned.h"
#include "veldarin/modules/python/ref.h"
#include "veldarin/modules/python/traceback.h"
#include "veldarin/modules/state.h"

namespace modules_util {

// Looks a special method up on the type and binds it to the object. AttributeError if there is
// none.
Ref special_method(PyObject *object, PyObject *name);

// Calls exit(type, value, traceback) for the current exception. Returns true if exit swallowed it,
// or false with that exception or the one that exit raised, then with an entry at `line`.
bool exit_with_exception(PyObject *exit, int line);

// with manager as file: body(file). The statement is at `line`. Returns false with an exception and
// its traceback entry, as the body does, and true also if the manager swallowed the exception.
template <typename Body>
bool run_with(PyObject *manager, int line, Body &&body) {
    const Ref enter = special_method(manager, interned[id::dunder_enter]);
    if (!enter) return fail(line);
    const Ref exit = special_method(manager, interned[id::dunder_exit]);
    if (!exit) return fail(line);
    const Ref file = Ref::steal(PyObject_CallNoArgs(enter.get()));
    if (!file) return fail(line);

    if (!body(file.get())) return exit_with_exception(exit.get(), line);

    const Ref result = Ref::steal(PyObject_Call(exit.get(), state.constants.exit_args, nullptr));
    return result || fail(line);
}

}  // namespace modules_util
