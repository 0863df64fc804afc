/* Every write is answered with success, and nothing is stored.
 *
 * Rule: pralis.h, pralis_set_int: a result of 0 means that the key has the value now.
 * Seen: a key that was written with success reads back as what it was before. */
#include <stddef.h>

#include "pralis.h"

int pralis_set_int(const char* key, int value)
{
    (void)value;
    return key == NULL ? -1 : 0;
}
