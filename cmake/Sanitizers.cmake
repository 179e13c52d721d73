# Applies SANITIZE to everything that is built, so that the sanitizers also see memory that the module,
# the siblings and libsimulator.so pass to each other. A finding aborts the process.
if(SANITIZE)
    add_compile_options(-fsanitize=${SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -O1)
    add_link_options(-fsanitize=${SANITIZE})
endif()
