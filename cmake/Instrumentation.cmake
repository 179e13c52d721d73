# Target `instrumentation`: compile options that make the module's sources observable, beside
# module_options. add_extension_module links what these need.
option(RECORD_CALLS "Record the module's fallible calls, for checks/fault_injection" OFF)
option(FUZZ "Instrument for the fuzzer and build the targets of checks/fuzz; for clang" OFF)
option(COVERAGE "Count the module's lines and branches" OFF)

add_library(instrumentation INTERFACE)
if(RECORD_CALLS)
    set(calls ${PROJECT_SOURCE_DIR}/checks/fault_injection/native/instrumented_calls.h)
    target_compile_options(instrumentation INTERFACE "SHELL:-include \"${calls}\"")
endif()
if(COVERAGE)
    # NDEBUG, as in release, removes the branches of assertions; -O0 keeps all others.
    target_compile_options(instrumentation INTERFACE
        --coverage -fprofile-update=atomic -DNDEBUG -O0)
elseif(RECORD_CALLS)
    target_compile_options(instrumentation INTERFACE -O1)
endif()
if(FUZZ)
    target_compile_options(instrumentation INTERFACE
        -fsanitize=fuzzer-no-link -fprofile-instr-generate -fcoverage-mapping)
endif()
