// The thirty functions, in the order in which they are bound.
#pragma once

#include <Python.h>

#include <array>

#include "veldarin/modules/python/binding.h"

namespace modules_util {

inline constexpr size_t function_count = 30;

// In the order in which they are bound.
extern const std::array<Function, function_count> functions;

// The interpreter's method table of the same functions, which ends with a null row.
extern const PyMethodDef *const methods;

}  // namespace modules_util
