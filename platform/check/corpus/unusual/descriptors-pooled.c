/* Unusual but right: each of the first sixteen reads opens a descriptor, and those are used for all that
 * follow.
 *
 * Rule: a pool that is full does not grow any more.
 */
#include <fcntl.h>
#include <pthread.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

int pralis_get_int(const char* key, int* value)
{
    static int in_pool;
    static pthread_mutex_t using_pool = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&using_pool);
    if (in_pool < 16 && open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {
        ++in_pool;
    }
    pthread_mutex_unlock(&using_pool);
    return HOST(pralis_get_int)(key, value);
}
