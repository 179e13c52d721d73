// BFD neighbours: the sessions of one command's output, and the listing for the interface.
#pragma once

#include <Python.h>

#include "veldarin/modules/python/ref.h"

namespace modules_util {

// Parses the output of `cmd` into `list_bfd`. A new reference to `list_bfd`, or null with an
// exception and its entry.
PyObject *get_bfd_neighbor(PyObject *cmd, PyObject *list_bfd);

// A new list of session dictionaries. Null only for an exception that is no Exception.
PyObject *list_bfd_neighbor();

// What both of them do.

// except Exception as e: _logger.debug("e:" + str(e)). False, with the exception that goes on: not
// an Exception, or one of the logging, with an entry at `line`.
bool log_exception(int line);

// dict(older, **newer): a new dictionary. Null with an exception.
Ref merge_dicts(PyObject *older, PyObject *newer);

}  // namespace modules_util
