# tarnwick-version: the header "tarnwick-version.h" for who has to tell version and commit. It is asked for in every
# build, and written only when another commit is checked out.
set(TARNWICK_COMMIT "" CACHE STRING "The commit that --version names; empty: what git says")

set(version_directory ${CMAKE_BINARY_DIR}/version)
add_custom_target(tarnwick-version-header
    COMMAND ${CMAKE_COMMAND} -DSOURCE=${PROJECT_SOURCE_DIR} -DHEADER=${version_directory}/tarnwick-version.h
            -DVERSION=${PROJECT_VERSION} -DCOMMIT=${TARNWICK_COMMIT}
            -P ${CMAKE_CURRENT_LIST_DIR}/write-version.cmake
    BYPRODUCTS ${version_directory}/tarnwick-version.h
    COMMENT "Looking for the commit"
    VERBATIM)
add_library(tarnwick-version INTERFACE)
add_dependencies(tarnwick-version tarnwick-version-header)
target_include_directories(tarnwick-version INTERFACE ${version_directory})

# package-note: linked to a binary, it puts version and commit into a note of it, and gives it a build-id.
add_library(package-note OBJECT ${PROJECT_SOURCE_DIR}/packaging/package-note.c)
target_link_libraries(package-note PRIVATE tarnwick-version tarnwick-warnings)
target_link_options(package-note INTERFACE LINKER:--build-id=sha1)
