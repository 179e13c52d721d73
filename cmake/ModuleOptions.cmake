# How the module is compiled (target `module_options`) and linked (`add_extension_module`).
#
# The process that loads it provides the interpreter and the native services only, so the module may
# need the C library and nothing else: no C++ runtime, one exported symbol.

# The release build is small: it has no unwind tables, binds symbols when it is loaded and runs nothing
# before its entry point.
set(SMALL -Os -fno-asynchronous-unwind-tables -fno-unwind-tables -fno-plt -fno-ident)
set(LINKED_SMALL -nostartfiles LINKER:-z,noseparate-code LINKER:--build-id=none LINKER:--strip-all)

add_library(module_options INTERFACE)
target_compile_options(module_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
    -fno-exceptions -fno-rtti -fno-threadsafe-statics
    -fvisibility=hidden -fvisibility-inlines-hidden
    -ffunction-sections -fdata-sections
    # The same bytes from every source folder.
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
    "$<$<CONFIG:Release>:${SMALL}>"
)

# optimize_for_speed(SOURCE ...): for the sources that run on every call or for every row of a table.
# A string view is two pointers, stored one by one: loading them as one vector would wait until both
# have left the processor's store buffer, hence -fno-tree-slp-vectorize.
function(optimize_for_speed)
    set_source_files_properties(${ARGN} PROPERTIES
        COMPILE_OPTIONS "$<$<CONFIG:Release>:-O2;-fno-tree-slp-vectorize;-fno-align-functions;-fno-align-jumps>")
endfunction()

# The linker language is C (below); this keeps CMake from adding the C++ runtime.
set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")

# add_extension_module(TARGET FOLDER): links the module's objects as modules_util.<platform> in FOLDER.
# The process that loads the module defines the symbols of the interpreter, json_object_to_json_string
# and the native services: no --no-undefined here.
function(add_extension_module target folder)
    add_library(${target} MODULE $<TARGET_OBJECTS:modules_util_objects>)
    set_target_properties(${target} PROPERTIES
        OUTPUT_NAME modules_util
        PREFIX ""
        SUFFIX ${MODULE_SUFFIX}
        LIBRARY_OUTPUT_DIRECTORY ${folder}
        LINKER_LANGUAGE C
        LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/modules_util.map
    )
    target_link_libraries(${target} PRIVATE $<$<BOOL:${RECORD_CALLS}>:faults>)
    target_link_options(${target} PRIVATE
        $<$<BOOL:${COVERAGE}>:--coverage>
        $<$<BOOL:${FUZZ}>:-fprofile-instr-generate>
        LINKER:--gc-sections
        LINKER:-z,relro,-z,now
        LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/modules_util.map
        "$<$<CONFIG:Release>:${LINKED_SMALL}>"
    )
endfunction()
