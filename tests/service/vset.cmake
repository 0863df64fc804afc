# The launcher, psmountd and the clock library of the virtual set, used as a person would.
add_executable(vset-clock-test ${CMAKE_CURRENT_LIST_DIR}/vset-clock-test.cpp)
pkg_check_modules(GLIB REQUIRED IMPORTED_TARGET glib-2.0)
find_package(GTest REQUIRED)
target_link_libraries(vset-clock-test PRIVATE
    GTest::gtest_main PkgConfig::GLIB Threads::Threads ${CMAKE_DL_LIBS} tarnwick-warnings)

foreach(topic IN ITEMS run contents kill mounts clock numbers television rootless power-cut)
    add_test(NAME vset-${topic}
        COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/vset-${topic}.bash $<TARGET_FILE_DIR:vset> $<TARGET_FILE:vset-clock-test>)
    # A script ends with 77 where the machine cannot run it, and says why.
    set_tests_properties(vset-${topic} PROPERTIES LABELS vset SKIP_RETURN_CODE 77 TIMEOUT 240)
endforeach()

add_executable(write-watch-test ${CMAKE_CURRENT_LIST_DIR}/write-watch-test.cpp)
target_link_libraries(write-watch-test PRIVATE vset-write-watch GTest::gmock_main Threads::Threads tarnwick-warnings)
gtest_discover_tests(write-watch-test TEST_PREFIX vset. DISCOVERY_MODE PRE_TEST)
