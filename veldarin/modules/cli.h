// Output of the appliance's command-line interface.
#pragma once

#include <Python.h>

#include "veldarin/modules/python/ref.h"

namespace modules_util {

// `cmd_s` is a str or None. A new reference to the text, or null with an exception and its entry.
PyObject *get_cli_command_output(PyObject *cmd_s);

// text_(get_cli_command_output(command), _CHARSET), by global names: how the parsers get their
// text, which may be any object. Null with an exception set.
Ref run_command(PyObject *command);

}  // namespace modules_util
