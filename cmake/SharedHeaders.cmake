# Most sources take longer to read what they include than what they say. share_headers(ROOM...) gives every target of
# these rooms, and of those below, headers that are compiled once for all:
#
#   shared-headers-library, shared-headers-program   the standard library, GIO, JSON. Two, because a compiler takes
#                                                    none that were compiled for the other kind of code
#   shared-headers-test                              the same for programs, and the test framework
#
# A source includes what it uses all the same: it has to compile with CMAKE_DISABLE_PRECOMPILE_HEADERS as well, as
# scripts/lint does. The daemon, and what is built with options of its own, stay without.
set(shared_headers
    <algorithm> <chrono> <filesystem> <fstream> <functional> <map> <memory> <optional> <sstream> <stdexcept> <string>
    <vector> <gio/gio.h> <json/json.h>)

function(shared_headers name)
    cmake_parse_arguments(with "" "" "OPTIONS;LIBRARIES;HEADERS" ${ARGN})
    set(source ${CMAKE_BINARY_DIR}/shared-headers/${name}.cpp)
    if(NOT EXISTS ${source})
        file(WRITE ${source} "")
    endif()
    add_library(shared-headers-${name} OBJECT EXCLUDE_FROM_ALL ${source})
    target_compile_options(shared-headers-${name} PRIVATE -pthread ${with_OPTIONS})
    target_link_libraries(shared-headers-${name}
        PRIVATE PkgConfig::GIO PkgConfig::JSONCPP ${with_LIBRARIES} tarnwick-warnings)
    target_precompile_headers(shared-headers-${name} PRIVATE ${shared_headers} ${with_HEADERS})
    if(with_OPTIONS)
        set_target_properties(shared-headers-${name} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
    endif()
endfunction()

shared_headers(library)
shared_headers(program OPTIONS -fPIE)
if(BUILD_TESTING)
    find_package(GTest REQUIRED)
    shared_headers(test OPTIONS -fPIE LIBRARIES GTest::gmock HEADERS <gmock/gmock.h> <gtest/gtest.h>)
endif()

# Which headers fit a target: sets `result` to a name of the above, or to "".
function(headers_for target result)
    set(${result} "" PARENT_SCOPE)
    get_target_property(type ${target} TYPE)
    get_target_property(sources ${target} SOURCES)
    get_target_property(visibility ${target} CXX_VISIBILITY_PRESET)
    get_target_property(hidden_inlines ${target} VISIBILITY_INLINES_HIDDEN)
    get_target_property(options ${target} COMPILE_OPTIONS)
    get_target_property(directory ${target} SOURCE_DIR)
    get_property(usual DIRECTORY ${directory} PROPERTY COMPILE_OPTIONS)
    if(options AND NOT options STREQUAL usual)
        return()
    endif()
    if(NOT type MATCHES "EXECUTABLE|LIBRARY" OR NOT sources MATCHES "[.]cpp" OR visibility OR hidden_inlines)
        return()
    endif()
    get_target_property(libraries ${target} LINK_LIBRARIES)
    if(NOT type STREQUAL EXECUTABLE)
        set(${result} library PARENT_SCOPE)
    elseif("${libraries}" MATCHES "GTest::")
        set(${result} test PARENT_SCOPE)
    else()
        set(${result} program PARENT_SCOPE)
    endif()
endfunction()

# Some sources of a test program are compiled at a time, unless CMAKE_UNITY_BUILD says otherwise: half of the time of each
# goes into templates of the test framework that all of them need. A third is saved where it is those of the standard
# library: in what has many sources, of which no two have a helper of one name.
set(joined_targets platformd-core vset-control vset-console fwmod-commands fwmod-images)
function(join_sources target)
    if(NOT DEFINED CMAKE_UNITY_BUILD)
        set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 6)
        # What a namespace without a name holds is seen by no other program, in whichever file it stands.
        target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
    endif()
endfunction()

function(share_headers)
    foreach(room IN LISTS ARGN)
        get_property(targets DIRECTORY ${room} PROPERTY BUILDSYSTEM_TARGETS)
        foreach(target IN LISTS targets)
            headers_for(${target} headers)
            if(headers)
                target_compile_options(${target} PRIVATE -pthread)
                target_precompile_headers(${target} REUSE_FROM shared-headers-${headers})
                if(headers STREQUAL test OR target IN_LIST joined_targets)
                    join_sources(${target})
                endif()
            endif()
        endforeach()
        get_property(below DIRECTORY ${room} PROPERTY SUBDIRECTORIES)
        share_headers(${below})
    endforeach()
endfunction()
