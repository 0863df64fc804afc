# bus_interfaces(NAME XML): a library with the D-Bus interfaces of a description as data, NAME.h. The bus checks every
# call's arguments against them.
find_program(GDBUS_CODEGEN gdbus-codegen REQUIRED)

function(bus_interfaces name xml)
    cmake_path(ABSOLUTE_PATH xml NORMALIZE)
    set(tables ${CMAKE_CURRENT_BINARY_DIR}/${name})
    set(kinds header body)
    set(extensions h c)
    foreach(kind extension IN ZIP_LISTS kinds extensions)
        add_custom_command(
            OUTPUT ${tables}.${extension}
            COMMAND ${GDBUS_CODEGEN} --interface-info-${kind} --output ${tables}.${extension} ${xml}
            DEPENDS ${xml}
            VERBATIM)
    endforeach()
    # Generated C, so not built with our own warnings.
    add_library(${name} STATIC ${tables}.c ${tables}.h)
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_BINARY_DIR})
    target_link_libraries(${name} PRIVATE PkgConfig::GIO)
endfunction()
