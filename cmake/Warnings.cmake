# Every target of the project is built with these; a warning is an error on GCC and Clang alike.
add_library(tarnwick-warnings INTERFACE)
target_compile_options(tarnwick-warnings INTERFACE
    -Wall -Wextra -Wpedantic -Werror
    -Wshadow -Wnon-virtual-dtor -Wcast-align -Woverloaded-virtual -Wformat=2 -Wundef -Wvla
    # The log macros take a format with or without arguments (", ##__VA_ARGS__").
    $<$<CXX_COMPILER_ID:Clang>:-Wno-gnu-zero-variadic-macro-arguments>
    $<$<CXX_COMPILER_ID:GNU>:-Wno-variadic-macros>)
