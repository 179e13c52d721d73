# Cross-compiles for 32-bit big-endian MIPS Linux (o32) with Debian's compiler and the CPython 3.9 and
# json-c that cross/mips/install builds. The build (and Cython) runs on the workstation's interpreter;
# headers and file name suffix are those of the MIPS interpreter.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(CMAKE_C_COMPILER mips-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mips-linux-gnu-g++)

execute_process(
    COMMAND bash -euc [[. "$0" && printf %s "$interpreter"]]
        ${CMAKE_CURRENT_LIST_DIR}/../cross/mips/config.sh
    OUTPUT_VARIABLE mips_interpreter
    COMMAND_ERROR_IS_FATAL ANY
)
if(NOT EXISTS ${mips_interpreter}/complete)
    message(FATAL_ERROR "the MIPS interpreter is not built; run: make mips")
endif()

set(CMAKE_FIND_ROOT_PATH ${mips_interpreter}/deps /usr/mips-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${mips_interpreter}/deps/lib/pkgconfig)

set(Python_INCLUDE_DIR ${mips_interpreter}/include/python3.9)
set(MODULE_SUFFIX .cpython-39-mips-linux-gnu.so)
