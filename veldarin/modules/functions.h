// The thirty functions, in the order in which they are bound.
#pragma once

#include <Python.h>

#include <array>

#include "runtime/binding.h"

namespace modules_util {

inline constexpr size_t function_count = 30;

// The rows, and the interpreter's method table made of them, which ends with a null row.
using FunctionTable = std::array<Function, function_count>;
using MethodTable = std::array<PyMethodDef, function_count + 1>;
extern const FunctionTable functions;
extern MethodTable methods;

}  // namespace modules_util
