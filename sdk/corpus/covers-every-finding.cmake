# Every kind of finding has a library in the corpus that shows it.
#
# cmake -DFWMOD=PROGRAM -DCORPUS=DIRECTORY -P covers-every-finding.cmake

execute_process(COMMAND ${FWMOD} check --list-findings
    OUTPUT_VARIABLE document COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "### F[0-9]+" kinds "${document}")
list(TRANSFORM kinds REPLACE "### " "")
list(LENGTH kinds count)
if(count EQUAL 0)
    message(FATAL_ERROR "fwmod check --list-findings lists nothing:\n${document}")
endif()

file(GLOB sources ${CORPUS}/faulty/*)
foreach(source IN LISTS sources)
    file(STRINGS ${source} line REGEX "^// finds: " LIMIT_COUNT 1)
    string(REGEX MATCHALL "F[0-9]+" shown "${line}")
    if(NOT shown)
        message(FATAL_ERROR "${source} has no line \"// finds: F...\"")
    endif()
    list(REMOVE_ITEM kinds ${shown})
endforeach()
if(kinds)
    message(FATAL_ERROR "No library in ${CORPUS}/faulty shows: ${kinds}")
endif()
