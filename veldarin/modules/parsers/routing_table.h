// Parses an entry of the routing table.
#pragma once

#include <Python.h>

namespace modules_util {

// `ip_address` is a str or None. Returns a new dictionary, or null with an exception and its
// traceback entry.
PyObject *get_routing_table_result(PyObject *ip_address);

}  // namespace modules_util
