# The platform library and its service: each test runs in a set of its own, as the set's root.
find_package(GTest REQUIRED)
include(GoogleTest)

add_executable(platform-test
    ${CMAKE_CURRENT_LIST_DIR}/platform/platform-test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/platform/settings-test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/platform/power-test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/platform/services-test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/platform/log-test.cpp)
target_link_libraries(platform-test
    PRIVATE tarnwick-platform vset-client GTest::gmock Threads::Threads tarnwick-warnings)
add_dependencies(platform-test vset psmountd platformd vset-clock)
set_target_properties(platform-test PROPERTIES
    CROSSCOMPILING_EMULATOR "$<TARGET_FILE:vset>;run;--temporary;-b;${CMAKE_BINARY_DIR};--")
gtest_discover_tests(platform-test
    TEST_PREFIX platform.
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    PROPERTIES LABELS service TIMEOUT 120)
