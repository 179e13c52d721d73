// Runs commands of the appliance's command-line interface.
#pragma once

#include <Python.h>

#include "veldarin/modules/python/ref.h"

namespace modules_util {

// `cmd_s` is a str or None. Returns a new reference to the output, or null with an exception and
// its traceback entry.
PyObject *get_cli_command_output(PyObject *cmd_s);

// text_(get_cli_command_output(command), _CHARSET), by global names. The parsers get their input
// so; it may be any object. Null with an exception set.
Ref run_command(PyObject *command);

}  // namespace modules_util
