# clock_test(NAME): the test of a set's clock, for a program that is started with the clock library.
find_package(GTest REQUIRED)
pkg_check_modules(GLIB REQUIRED IMPORTED_TARGET glib-2.0)

function(clock_test name)
    add_executable(${name} ${PROJECT_SOURCE_DIR}/tests/vset/vset-clock-test.cpp)
    target_link_libraries(${name} PRIVATE
        GTest::gtest_main PkgConfig::GLIB Threads::Threads ${CMAKE_DL_LIBS} tarnwick-warnings)
endfunction()
