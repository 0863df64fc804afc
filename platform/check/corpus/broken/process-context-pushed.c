/* A main context of the library's own stays the thread's default after the first subscription.
 *
 * Rule: pwrctl.h: callbacks arrive on the thread that runs the default main context; what the caller
 *       subscribes to itself after that would go to a context that nobody runs.
 * Seen: the thread has another thread-default main context after pwrctl_subscribe_state_changed_event. */
#include <gio/gio.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

int pwrctl_subscribe_state_changed_event(pwrctl_state_cb cb, void* user_data)
{
    const int result = HOST(pwrctl_subscribe_state_changed_event)(cb, user_data);
    g_main_context_push_thread_default(g_main_context_new());
    return result;
}
