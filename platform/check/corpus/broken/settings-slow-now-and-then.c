/* Every fortieth write puts the store in order, which takes 1.4 s.
 *
 * Rule: pralis.h: every call answers within half a second.
 * Seen: two of eighty writes take longer. */
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

int pralis_set_int(const char* key, int value)
{
    static int writes;
    if (__atomic_add_fetch(&writes, 1, __ATOMIC_RELAXED) % 40 == 0) {
        usleep(1400000);
    }
    return HOST(pralis_set_int)(key, value);
}
