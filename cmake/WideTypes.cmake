# File sizes and times of 64 bits on a processor of 32, whose C library has them only on request: without them an image of
# 2 GiB, or one with a date after January 2038, would not be there. No library of others is called with either type, so
# theirs may stay as they are.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()
