# What makes a program hard to take over, by this build and not by the grace of a distribution's compiler.
# tarnwick-hardening is for the daemon, in every configuration, so that the test of its linked file (linked-file)
# looks at what a release gets; all but debug builds have it everywhere.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)
check_pie_supported() # CMAKE_POSITION_INDEPENDENT_CODE means executables, too, from here on

add_library(tarnwick-hardening INTERFACE)
target_compile_options(tarnwick-hardening INTERFACE
    -fstack-protector-strong
    # The C library's checks need the optimiser's knowledge of sizes.
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>)
target_link_options(tarnwick-hardening INTERFACE LINKER:-z,relro LINKER:-z,now)

# Where the processor and the compiler have it.
set(hardening_flags -fstack-clash-protection)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
    list(APPEND hardening_flags -fcf-protection=full)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
    list(APPEND hardening_flags -mbranch-protection=standard)
endif()
foreach(flag IN LISTS hardening_flags)
    string(MAKE_C_IDENTIFIER "has${flag}" has)
    check_cxx_compiler_flag(${flag} ${has})
    if(${has})
        target_compile_options(tarnwick-hardening INTERFACE ${flag})
    endif()
endforeach()

add_compile_options(
    "$<$<NOT:$<CONFIG:Debug>>:$<TARGET_PROPERTY:tarnwick-hardening,INTERFACE_COMPILE_OPTIONS>>")
add_link_options("$<$<NOT:$<CONFIG:Debug>>:$<TARGET_PROPERTY:tarnwick-hardening,INTERFACE_LINK_OPTIONS>>")
