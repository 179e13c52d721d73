// BFD neighbours: the sessions of one command's output, and the listing for the interface.
#pragma once

#include <Python.h>

namespace modules_util {

// Parses the output of `cmd` into `list_bfd`. A new reference to `list_bfd`, or null with an
// exception and its entry.
PyObject *get_bfd_neighbor(PyObject *cmd, PyObject *list_bfd);

// A new list of session dictionaries. Null only for an exception that is no Exception.
PyObject *list_bfd_neighbor();

}  // namespace modules_util
