# add_cython_module(DOTTED.NAME FOLDER): compiles FOLDER/<name as path>.pyx into an extension module
# under the import root (STAGE). The target has the module's name with "." replaced by "_"; callers can
# add sources, headers and libraries to it.
function(add_cython_module name folder)
    string(REPLACE "." "/" path ${name})
    string(REPLACE "." "_" target ${name})
    set(source ${folder}/${path}.pyx)
    set(generated ${CMAKE_CURRENT_BINARY_DIR}/${path}.c)
    cmake_path(GET generated PARENT_PATH generated_folder)
    cmake_path(GET path PARENT_PATH package)
    cmake_path(GET path FILENAME file_name)

    # Cython's depfile does not quote a blank in a path.
    file(GLOB_RECURSE declarations CONFIGURE_DEPENDS ${folder}/*.pxd)
    file(MAKE_DIRECTORY ${generated_folder})
    add_custom_command(
        OUTPUT ${generated}
        COMMAND ${Python_EXECUTABLE} -m cython -3 --module-name ${name} --include-dir ${folder}
            --output-file ${generated} ${source}
        DEPENDS ${source} ${declarations}
        COMMENT "Cythonizing ${name}"
        VERBATIM
    )
    add_library(${target} MODULE ${generated})
    set_target_properties(${target} PROPERTIES
        OUTPUT_NAME ${file_name}
        PREFIX ""
        SUFFIX ${MODULE_SUFFIX}
        LIBRARY_OUTPUT_DIRECTORY ${STAGE}/${package}
    )
    # Warnings about generated code are not ours to fix.
    target_compile_options(${target} PRIVATE -w)
    target_link_libraries(${target} PRIVATE python_headers)
endfunction()
