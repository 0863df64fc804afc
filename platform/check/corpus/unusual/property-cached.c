/* Unusual but right: a property is asked for once, and answered from a cache from then on, each time in a
 * copy.
 *
 * Rule: sysprop.h: "*value" is the caller's. The texts are those of a set, and do not change while it is
 *       on.
 */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "platform/check/corpus/base.h"
#include "sysprop.h"

enum { CACHED = 256 };

int sysprop_get_value_string(int key, char** value)
{
    static char* cache[CACHED];
    static pthread_mutex_t using_cache = PTHREAD_MUTEX_INITIALIZER;
    if (key < 0 || key >= CACHED || value == NULL) {
        return HOST(sysprop_get_value_string)(key, value);
    }
    pthread_mutex_lock(&using_cache);
    const int result = cache[key] != NULL ? 0 : HOST(sysprop_get_value_string)(key, &cache[key]);
    char* copy = result == 0 ? strdup(cache[key]) : NULL;
    pthread_mutex_unlock(&using_cache);
    if (copy == NULL) {
        return -1;
    }
    *value = copy;
    return 0;
}
