/* A write returns when the main loop has seen it, for which a write on the main loop's own thread waits
 * in vain.
 *
 * Rule: pralis.h: every call may be made from any thread.
 * Seen: pralis_set_int on the main loop's thread does not return. */
#include <glib.h>
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

static gboolean note(gpointer is_seen)
{
    g_atomic_int_set((gint*)is_seen, 1);
    return G_SOURCE_REMOVE;
}

int pralis_set_int(const char* key, int value)
{
    const int result = HOST(pralis_set_int)(key, value);
    static gint is_seen;
    g_atomic_int_set(&is_seen, 0);
    g_idle_add_full(G_PRIORITY_HIGH, note, &is_seen, NULL);
    while (!g_atomic_int_get(&is_seen)) {
        usleep(1000);
    }
    return result;
}
