# What is built beside the daemon. A television's own platform libraries are not on this PC's virtual set, so with them
# it is the daemon, and fwctl and the check of these libraries if they are asked for.
set(TARNWICK_PLATFORM_LIBRARIES "" CACHE STRING
    "Libraries with the calls of platform/include (names, paths, CMake targets, pkg-config); empty: the PC's own")

if(TARNWICK_PLATFORM_LIBRARIES)
    set(tools OFF)
else()
    set(tools ON)
endif()
option(TARNWICK_TOOLS "Build the virtual set, fwctl, fwmod and the maker's kit" ${tools})
option(TARNWICK_FWCTL "Build fwctl, the technician's command" ${TARNWICK_TOOLS})
option(TARNWICK_PLATFORM_CHECK "Build tarnwick-platform-check, which tries a set's platform libraries" ${TARNWICK_TOOLS})
option(BUILD_TESTING "Build the tests" ${TARNWICK_TOOLS})

if(TARNWICK_TOOLS AND TARNWICK_PLATFORM_LIBRARIES)
    message(FATAL_ERROR
        "A virtual set runs the daemon on the platform of this tree, not on \"${TARNWICK_PLATFORM_LIBRARIES}\". "
        "Build for a television in a tree of its own: cmake --preset television -DTARNWICK_PLATFORM_LIBRARIES=... "
        "(that is -DTARNWICK_TOOLS=OFF -DBUILD_TESTING=OFF; with -DTARNWICK_FWCTL=ON fwctl as well)")
endif()
if(BUILD_TESTING AND NOT TARNWICK_TOOLS AND NOT TARNWICK_TEST_LAUNCHER)
    message(FATAL_ERROR
        "The tests run on a virtual set, which -DTARNWICK_TOOLS=OFF leaves out: configure with -DBUILD_TESTING=OFF, or "
        "name a program that runs a unit test in a root of its own with -DTARNWICK_TEST_LAUNCHER=...")
endif()
