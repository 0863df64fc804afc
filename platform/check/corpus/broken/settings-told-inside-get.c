/* A read first takes what has arrived on the main loop.
 *
 * Rule: pralis.h: callbacks never come inside a call.
 * Seen: the change of one key is told inside the read of another. */
#include <glib.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

int pralis_get_int(const char* key, int* value)
{
    if (g_main_context_is_owner(NULL) || g_main_context_acquire(NULL)) {
        while (g_main_context_iteration(NULL, FALSE)) {
        }
        if (g_main_depth() == 0) {
            g_main_context_release(NULL);
        }
    }
    return HOST(pralis_get_int)(key, value);
}
