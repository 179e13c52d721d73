# add_tidy(TARGET ...): adds a target `tidy` that runs clang-tidy over the C++ sources of the named
# targets, each source again only when it, a header or the configuration changed.
cmake_path(GET Python_EXECUTABLE PARENT_PATH interpreter_folder)
set(CLANG_TIDY ${interpreter_folder}/clang-tidy)  # needed only by `make lint`

function(add_tidy)
    file(GLOB_RECURSE headers CONFIGURE_DEPENDS
        ${PROJECT_SOURCE_DIR}/veldarin/*.h ${PROJECT_SOURCE_DIR}/util/*.h
        ${PROJECT_SOURCE_DIR}/migbase/*.h ${PROJECT_SOURCE_DIR}/veldarin_simulator/native/*.h)
    set(stamps "")
    foreach(target IN LISTS ARGN)
        get_target_property(folder ${target} SOURCE_DIR)
        get_target_property(sources ${target} SOURCES)
        foreach(source IN LISTS sources)
            cmake_path(ABSOLUTE_PATH source BASE_DIRECTORY ${folder})
            cmake_path(RELATIVE_PATH source BASE_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE name)
            set(stamp ${PROJECT_BINARY_DIR}/tidy/${name}.stamp)
            cmake_path(GET stamp PARENT_PATH stamp_folder)
            file(MAKE_DIRECTORY ${stamp_folder})
            add_custom_command(
                OUTPUT ${stamp}
                # clang does not know every flag of the compiler in use.
                COMMAND ${CLANG_TIDY} -p ${PROJECT_BINARY_DIR} --quiet
                    --extra-arg=-Wno-unknown-warning-option
                    --extra-arg=-Wno-ignored-optimization-argument ${source}
                COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
                DEPENDS ${source} ${headers} ${PROJECT_SOURCE_DIR}/.clang-tidy
                COMMENT "clang-tidy ${name}"
                VERBATIM
            )
            list(APPEND stamps ${stamp})
        endforeach()
    endforeach()
    add_custom_target(tidy DEPENDS ${stamps})
endfunction()
