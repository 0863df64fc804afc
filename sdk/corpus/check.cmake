# Checks one library of the corpus, and compares what was found with what its source says.
#
# cmake -DFWMOD=PROGRAM -DSOURCE=FILE -DLIBRARY=FILE -DCHECK=OPTIONS -P check.cmake

file(STRINGS ${SOURCE} expected REGEX "^// finds: " LIMIT_COUNT 1)
string(REGEX MATCHALL "F[0-9]+" expected "${expected}")

execute_process(COMMAND ${FWMOD} check ${LIBRARY} ${CHECK} --json
    RESULT_VARIABLE status OUTPUT_VARIABLE report ERROR_VARIABLE complaint)
string(JSON count ERROR_VARIABLE not_json LENGTH "${report}" findings)
if(not_json)
    message(FATAL_ERROR "No report, but status ${status}:\n${report}${complaint}")
endif()

set(found "")
set(details "")
set(expected_status 0)
foreach(index RANGE ${count})
    if(index EQUAL count) # RANGE includes its end
        break()
    endif()
    foreach(member id severity title detail)
        string(JSON ${member} GET "${report}" findings ${index} ${member})
    endforeach()
    list(APPEND found ${id})
    string(APPEND details "  ${id} ${severity}: ${title}\n    ${detail}\n")
    if(severity STREQUAL "error")
        set(expected_status 1)
    endif()
endforeach()
list(REMOVE_DUPLICATES found)
list(SORT found)
list(SORT expected)

if(NOT found STREQUAL expected)
    message(FATAL_ERROR "${SOURCE} is to be found: [${expected}]\nbut fwmod check found: [${found}]\n${details}${complaint}")
endif()
if(NOT status EQUAL expected_status)
    message(FATAL_ERROR "The exit status is ${status} instead of ${expected_status}.\n${details}${complaint}")
endif()
