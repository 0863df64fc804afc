/* A key that is not there raises an exception.
 *
 * Rule: pralis.h: C functions, whose results are 0 for success and negative for failure.
 * Seen: an exception left pralis_get_int. */
#include <stdexcept>

#include "platform/check/corpus/base.h"
#include "pralis.h"

int pralis_get_int(const char* key, int* value)
{
    if (HOST(pralis_get_int)(key, value) != 0) {
        throw std::out_of_range("no such key");
    }
    return 0;
}
