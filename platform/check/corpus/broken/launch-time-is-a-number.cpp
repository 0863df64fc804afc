/* The time that is added is read as a number, and anything else is an exception.
 *
 * Rule: applaunch.h: a request takes any pair of texts; platform/README.md: no exception leaves a call.
 * Seen: "timeinfo" with the value "soon" ends with std::invalid_argument. */
#include <cstring>
#include <string>

#include "applaunch.h"
#include "platform/check/corpus/base.h"

extern "C" int applaunch_add_extra_data(applaunch_h request, const char* key, const char* value)
{
    if (request != nullptr && std::strcmp(key, "timeinfo") == 0 && std::stoi(value) < -1) {
        return -22;
    }
    return HOST(applaunch_add_extra_data)(request, key, value);
}
