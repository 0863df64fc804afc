# Every target of the project is built with these, and is clean with GCC and Clang alike. That a warning is an error is
# for who works on the code: the presets say so with CMAKE_COMPILE_WARNING_AS_ERROR. Another compiler's new warning
# must not keep an integrator from building.
add_library(tarnwick-warnings INTERFACE)
target_compile_options(tarnwick-warnings INTERFACE
    -Wall -Wextra
    -Wshadow -Wcast-align -Wformat=2 -Wundef -Wvla
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
    # Pedantic on Clang only, where the one exception can be named: a log macro takes a format with or without
    # arguments (", ##__VA_ARGS__"). GCC has no switch for it.
    $<$<CXX_COMPILER_ID:Clang>:-Wpedantic -Wno-gnu-zero-variadic-macro-arguments>)
