// The ARP table.
#pragma once

#include <Python.h>

namespace modules_util {

// A new list of dictionaries, or null with an exception and its entry.
PyObject *get_system_arp_result();

}  // namespace modules_util
