// Parses the BFD sessions in the output of one command.
#pragma once

#include <Python.h>

#include "veldarin/modules/python/ref.h"

namespace modules_util {

// Parses the output of `cmd` into `list_bfd`. Returns a new reference to `list_bfd`, or null with
// an exception and its traceback entry.
PyObject *get_bfd_neighbor(PyObject *cmd, PyObject *list_bfd);

// except Exception as e: _logger.debug("e:" + str(e)). Returns false if an exception must
// propagate: the current one does not derive from Exception, or logging itself raised (then with a
// traceback entry at `line`).
bool log_exception(int line);

// dict(older, **newer). Null with an exception set.
Ref merge_dicts(PyObject *older, PyObject *newer);

}  // namespace modules_util
