// Parses the ARP table.
#pragma once

#include <Python.h>

namespace modules_util {

// Returns a new list of dictionaries, or null with an exception and its traceback entry.
PyObject *get_system_arp_result();

}  // namespace modules_util
