// Looks up global names at the moment of the call, so that rebinding a name in the module takes
// effect.
#pragma once

#include "veldarin/modules/python/ref.h"

namespace modules_util {

// The module's own `name`, else the builtin; NameError if there is neither.
Ref global(PyObject *name);

// The builtin `name`; NameError if there is none.
Ref builtin(PyObject *name);

// Calls a global: callee() or callee(argument).
Ref call_global(PyObject *callee);
Ref call_global(PyObject *callee, PyObject *argument);

}  // namespace modules_util
