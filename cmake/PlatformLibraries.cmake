# Platform::chosen, the libraries that the daemon's platform calls come from: those of TARNWICK_PLATFORM_LIBRARIES, or
# the PC's. Each word of the list may be
#
#   Vendor::power            a CMake target; the package Vendor is looked for if there is no such target yet
#   /opt/tv/lib/libpower.so  a library by its full path
#   -L/opt/tv/lib, -Wl,...   for the linker as it is; a directory of -L is looked into for the names
#   power, -lpower           pkg-config's power.pc, if there is one, else libpower.so or libpower.a
#
# A name is looked for below CMAKE_PREFIX_PATH, in CMAKE_LIBRARY_PATH, in the sysroot and where the compiler's linker
# looks. All that are missing are told at once, because each costs the reader a run.
add_library(platform-chosen INTERFACE)
add_library(Platform::chosen ALIAS platform-chosen)

# Sets `result` to what links the word, or to "" when nothing is found.
function(find_platform_library word result)
    set(${result} "" PARENT_SCOPE)
    if(word MATCHES "^(.+)::" AND NOT TARGET ${word})
        find_package(${CMAKE_MATCH_1} CONFIG QUIET GLOBAL)
    endif()
    if(TARGET ${word} OR (word MATCHES "^-" AND NOT word MATCHES "^-l"))
        set(${result} ${word} PARENT_SCOPE)
        return()
    endif()
    if(IS_ABSOLUTE ${word})
        if(EXISTS ${word} AND NOT IS_DIRECTORY ${word})
            set(${result} ${word} PARENT_SCOPE)
        endif()
        return()
    endif()
    if(word MATCHES "::")
        return()
    endif()
    string(REGEX REPLACE "^-l" "" name ${word})
    string(MAKE_C_IDENTIFIER "PLATFORM_${name}" package)
    unset(${package}_FOUND CACHE) # another PKG_CONFIG_PATH than last time may know it
    pkg_check_modules(${package} QUIET IMPORTED_TARGET GLOBAL ${name})
    if(${package}_FOUND)
        set(${result} PkgConfig::${package} PARENT_SCOPE)
        return()
    endif()
    find_library(library NAMES ${name} HINTS ${directories} NO_CACHE)
    if(library)
        set(${result} ${library} PARENT_SCOPE)
    endif()
endfunction()

function(choose_platform_libraries)
    set(directories ${TARNWICK_PLATFORM_LIBRARIES})
    list(FILTER directories INCLUDE REGEX "^-L")
    list(TRANSFORM directories REPLACE "^-L" "")
    foreach(word IN LISTS TARNWICK_PLATFORM_LIBRARIES)
        find_platform_library(${word} found)
        if(found)
            target_link_libraries(platform-chosen INTERFACE ${found})
        else()
            list(APPEND missing ${word})
        endif()
    endforeach()
    if(missing)
        list(JOIN missing ", " missing)
        message(FATAL_ERROR
            "TARNWICK_PLATFORM_LIBRARIES: not found: ${missing}\n"
            "A word is a CMake target (Vendor::power), a full path, or a name (power) that pkg-config or the linker "
            "knows. Say where names are with -DCMAKE_PREFIX_PATH=, -DCMAKE_LIBRARY_PATH= or PKG_CONFIG_PATH in the "
            "environment; between words stands a semicolon.")
    endif()
endfunction()

if(TARNWICK_PLATFORM_LIBRARIES)
    choose_platform_libraries()
else()
    target_link_libraries(platform-chosen INTERFACE tarnwick-platform)
endif()
