# Target `python_headers`: the C headers of the CPython 3.9 that the modules are built for.
# MODULE_SUFFIX: the end of an extension module's file name (".cpython-39-<platform>.so").
# Nothing links libpython: the process that loads an extension module has the interpreter.
find_package(Python 3.9...<3.10 REQUIRED COMPONENTS Interpreter Development.Module)

set(MODULE_SUFFIX .${Python_SOABI}.so CACHE STRING "End of an extension module's file name")

add_library(python_headers INTERFACE)
target_include_directories(python_headers SYSTEM INTERFACE ${Python_INCLUDE_DIRS})
