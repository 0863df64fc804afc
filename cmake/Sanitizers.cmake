# TARNWICK_SANITIZE is a list as the compiler's -fsanitize takes it: "address,undefined" or "thread".
set(TARNWICK_SANITIZE "" CACHE STRING "Sanitizers for everything that is built, as in -fsanitize=")
if(TARNWICK_SANITIZE)
    add_compile_options(-fsanitize=${TARNWICK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${TARNWICK_SANITIZE})
endif()
