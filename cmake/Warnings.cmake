# Every target of the project is built with these; a warning is an error on GCC and Clang alike.
add_library(tarnwick-warnings INTERFACE)
target_compile_options(tarnwick-warnings INTERFACE
    -Wall -Wextra -Werror
    -Wshadow -Wcast-align -Wformat=2 -Wundef -Wvla
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
    # Pedantic on Clang only, where the one exception can be named: a log macro takes a format with or without
    # arguments (", ##__VA_ARGS__"). GCC has no switch for it.
    $<$<CXX_COMPILER_ID:Clang>:-Wpedantic -Wno-gnu-zero-variadic-macro-arguments>)
