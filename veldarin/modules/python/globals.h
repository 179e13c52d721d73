// Looks up global names at the moment of the call, so that rebinding a name in the module takes
// effect.
#pragma once

#include "veldarin/modules/interned.h"
#include "veldarin/modules/python/ref.h"

namespace modules_util {

// The module's own `name`, else the builtin; NameError if there is neither.
Ref global(StringId name);

// The builtin `name`; NameError if there is none.
Ref builtin(PyObject *name);

// Calls a global: callee() or callee(argument).
Ref call_global(StringId callee);
Ref call_global(StringId callee, PyObject *argument);

// Calls function(first, second).
Ref call(const Ref &function, PyObject *first, PyObject *second);

}  // namespace modules_util
