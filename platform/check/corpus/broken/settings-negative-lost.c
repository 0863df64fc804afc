/* Values are kept in 16 bits without a sign.
 *
 * Rule: pralis.h, pralis_get_int: reads the key's int, as it was written.
 * Seen: -1 was written, and 65535 is read. */
#include "platform/check/corpus/base.h"
#include "pralis.h"

int pralis_get_int(const char* key, int* value)
{
    const int result = HOST(pralis_get_int)(key, value);
    if (result == 0) {
        *value &= 0xffff;
    }
    return result;
}
