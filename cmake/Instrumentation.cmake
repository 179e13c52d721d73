# Target `instrumentation`: what the product's sources are compiled with beside the product's own options,
# to watch it at work. add_extension_module links what these need.
option(RECORD_CALLS "Record the product's fallible calls, for the sweep in checks/fault_injection" OFF)
option(FUZZ "Let the fuzzer see which edges run, and build targets in checks/fuzz; for clang" OFF)
option(COVERAGE "Count the product's lines and branches as they run" OFF)

add_library(instrumentation INTERFACE)
if(RECORD_CALLS)
    set(calls ${PROJECT_SOURCE_DIR}/checks/fault_injection/native/instrumented_calls.h)
    target_compile_options(instrumentation INTERFACE "SHELL:-include ${calls}")
endif()
if(COVERAGE)
    # Without the assertions in the interpreter's macros, as the product ships; and nothing folded.
    target_compile_options(instrumentation INTERFACE
        --coverage -fprofile-update=atomic -DNDEBUG -O0)
elseif(RECORD_CALLS)
    target_compile_options(instrumentation INTERFACE -O1)
endif()
if(FUZZ)
    target_compile_options(instrumentation INTERFACE
        -fsanitize=fuzzer-no-link -fprofile-instr-generate -fcoverage-mapping)
endif()
