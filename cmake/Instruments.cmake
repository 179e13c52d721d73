# Target `instruments`: what the product's sources are compiled with beside the product's own options,
# to watch it at work. add_product_module links what these need.
option(RECORD_CALLS "Record the product's fallible calls, for the sweep in tests/faults" OFF)
option(FUZZ "Let the fuzzer see which edges run, and build targets in tests/fuzz; for clang" OFF)
option(COVERAGE "Count the product's lines and branches as they run" OFF)

add_library(instruments INTERFACE)
if(RECORD_CALLS)
    set(calls ${PROJECT_SOURCE_DIR}/tests/faults/native/calls.h)
    target_compile_options(instruments INTERFACE "SHELL:-include ${calls}")
endif()
if(COVERAGE)
    # Without the assertions in the interpreter's macros, as the product ships; and nothing folded.
    target_compile_options(instruments INTERFACE
        --coverage -fprofile-update=atomic -DNDEBUG -O0)
elseif(RECORD_CALLS)
    target_compile_options(instruments INTERFACE -O1)
endif()
if(FUZZ)
    target_compile_options(instruments INTERFACE
        -fsanitize=fuzzer-no-link -fprofile-instr-generate -fcoverage-mapping)
endif()
