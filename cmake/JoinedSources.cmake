# Sources of one target include much the same and instantiate the same templates. join_sources(TARGET) has some of them
# compiled as one: a source of includes in joined/ of the build tree, which names them by their path from the root, so
# that a compiler cache knows it again in another checkout (CMAKE_UNITY_BUILD names them by their full path).
#
# Names in the unnamed namespaces of a target are therefore different ones. A source with options of its own is left
# alone, and so is one with the property SKIP_UNITY_BUILD_INCLUSION. scripts/lint compiles every source by itself, which
# has to include what it uses.
option(TARNWICK_JOIN_SOURCES "Compile some sources of a target as one: quicker to build, slower to build again" OFF)
set(joined_at_most 8)

# Sets `result` to whether the source, a full path, can be compiled with others.
function(can_be_joined target source result)
    cmake_path(IS_PREFIX PROJECT_SOURCE_DIR ${source} of_ours)
    foreach(property IN ITEMS COMPILE_OPTIONS COMPILE_DEFINITIONS SKIP_UNITY_BUILD_INCLUSION)
        get_source_file_property(value ${source} TARGET_DIRECTORY ${target} ${property})
        if(value)
            set(of_ours OFF)
        endif()
    endforeach()
    if(NOT source MATCHES "[.]cpp$")
        set(of_ours OFF)
    endif()
    set(${result} ${of_ours} PARENT_SCOPE)
endfunction()

function(join_sources target)
    get_target_property(type ${target} TYPE)
    if(NOT TARNWICK_JOIN_SOURCES OR NOT type MATCHES "EXECUTABLE|(STATIC|SHARED|MODULE|OBJECT)_LIBRARY")
        return()
    endif()
    get_target_property(all ${target} SOURCES)
    get_target_property(directory ${target} SOURCE_DIR)
    set(joined "")
    set(rest "")
    foreach(source IN LISTS all)
        set(join OFF)
        if(NOT source MATCHES "^[$]")
            cmake_path(ABSOLUTE_PATH source BASE_DIRECTORY ${directory} NORMALIZE)
            can_be_joined(${target} ${source} join)
        endif()
        if(join)
            list(APPEND joined ${source})
        else()
            list(APPEND rest ${source})
        endif()
    endforeach()
    list(REMOVE_DUPLICATES joined)
    list(LENGTH joined number)
    if(number LESS 2)
        return()
    endif()

    # In parts of the same size.
    math(EXPR parts "(${number} + ${joined_at_most} - 1) / ${joined_at_most}")
    math(EXPR size "(${number} + ${parts} - 1) / ${parts}")
    foreach(part RANGE 1 ${parts})
        list(SUBLIST joined 0 ${size} some)
        list(REMOVE_ITEM joined ${some})
        set(includes "")
        foreach(source IN LISTS some)
            cmake_path(RELATIVE_PATH source BASE_DIRECTORY ${PROJECT_SOURCE_DIR})
            string(APPEND includes "#include \"${source}\"\n")
        endforeach()
        set(file ${PROJECT_BINARY_DIR}/joined/${target}-${part}.cpp)
        file(CONFIGURE OUTPUT ${file} CONTENT "${includes}" @ONLY)
        # GCC takes for a header's what is not in the file that it was given.
        set_source_files_properties(${file} TARGET_DIRECTORY ${target} PROPERTIES
            COMPILE_OPTIONS $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
        list(APPEND rest ${file})
    endforeach()
    set_property(TARGET ${target} PROPERTY SOURCES ${rest})
endfunction()
