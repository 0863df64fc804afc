/* Every read leaves a descriptor open.
 *
 * Rule: a call keeps nothing of what it needs: who asks once a second runs out of descriptors within a
 *       day.
 * Seen: the number of open descriptors grows with pralis_get_int. */
#include <fcntl.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

int pralis_get_int(const char* key, int* value)
{
    open("/dev/null", O_RDONLY | O_CLOEXEC);
    return HOST(pralis_get_int)(key, value);
}
