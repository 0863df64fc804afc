# cmake -DSOURCE= -DHEADER= -DVERSION= -DCOMMIT= -P: the header, left alone when it would stay the same.
if(NOT COMMIT)
    execute_process(
        COMMAND git --no-optional-locks -C ${SOURCE} describe --always --dirty --abbrev=12 --exclude=*
        OUTPUT_VARIABLE COMMIT OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT COMMIT)
    set(COMMIT unknown) # an archive, or no git
endif()
file(CONFIGURE OUTPUT ${HEADER} @ONLY CONTENT [[
#define TARNWICK_VERSION "@VERSION@"
#define TARNWICK_COMMIT "@COMMIT@"
]])
