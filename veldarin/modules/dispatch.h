// The functions of the table, as the interpreter and the import need them.
#pragma once

#include <Python.h>

#include "veldarin/modules/python/binding.h"

namespace modules_util {

// The interpreter's method table, in the order of the function table; ends with a null row.
extern const PyMethodDef *const methods;

// Kind, first line and parameters of the same functions.
extern const Function *const functions;

}  // namespace modules_util
