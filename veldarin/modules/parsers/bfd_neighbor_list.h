// Lists BFD neighbors.
#pragma once

#include <Python.h>

namespace modules_util {

// Returns a new list of session dictionaries, or null if an exception that does not derive from
// Exception (KeyboardInterrupt, say) must propagate.
PyObject *list_bfd_neighbor();

}  // namespace modules_util
