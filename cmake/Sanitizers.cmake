# SANITIZE: applied to everything built here, so that memory is followed across the boundaries
# between the product, the siblings and the host library. A finding ends the process.
if(SANITIZE)
    add_compile_options(-fsanitize=${SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -O1)
    add_link_options(-fsanitize=${SANITIZE})
endif()
