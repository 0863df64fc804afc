# TARNWICK_COVERAGE counts what runs of the daemon and of the programs around it: preset coverage, `scripts/measure coverage`.
option(TARNWICK_COVERAGE "Count what runs of src/, common/, tools/ and vset/ (GCC)" OFF)
if(TARNWICK_COVERAGE)
    # Threads count as well; and nobody asks how much of the tests, or of others' headers, was run.
    add_compile_options(--coverage -fprofile-update=atomic
        "-fprofile-filter-files=/(src|common|tools|vset)/" "-fprofile-exclude-files=/tests/")
    add_link_options(--coverage LINKER:--wrap=_exit LINKER:--exclude-libs,libgcov.a)
    add_library(coverage-at-exit OBJECT ${CMAKE_CURRENT_LIST_DIR}/coverage-at-exit.c)
    link_libraries($<BUILD_INTERFACE:coverage-at-exit>) # what is exported does without
endif()
