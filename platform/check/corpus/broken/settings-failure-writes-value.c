/* A key that cannot be read gives a failure, and zero in the caller's variable.
 *
 * Rule: pralis.h, pralis_get_int: "*value" is untouched on failure.
 * Seen: a failed read has changed the value. */
#include <stddef.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

int pralis_get_int(const char* key, int* value)
{
    const int result = HOST(pralis_get_int)(key, value);
    if (result != 0 && value != NULL) {
        *value = 0;
    }
    return result;
}
