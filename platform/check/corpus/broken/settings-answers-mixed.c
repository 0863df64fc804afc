/* All threads' reads go through one variable.
 *
 * Rule: pralis.h: every call may be made from any thread; platform/README.md: several at a time.
 * Seen: two threads that read two keys at the same time get each other's values. */
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

static int answer;

int pralis_get_int(const char* key, int* value)
{
    const int result = HOST(pralis_get_int)(key, &answer);
    if (result == 0) {
        usleep(500); /* the rest of what there is to do */
        *value = answer;
    }
    return result;
}
