/* Before a subscription ends, the main loop is run until nothing waits there.
 *
 * Rule: platform/README.md: no call runs GLib's default main context.
 * Seen: what waits for the main loop comes in the middle of the call. */
#include <glib.h>
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    while (gettid() == getpid() && g_main_context_iteration(NULL, FALSE)) {
    }
    return HOST(pralis_ignore_key_changed)(key, cb);
}
