/* The reboot is asked for by the main loop, a second later.
 *
 * Rule: pwrctl.h, pwrctl_request_reboot: the reboot follows; the daemon ends right after the call.
 * Seen: a process that ends with quick_exit right after the call has not asked for it. */
#include <glib.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

static gboolean ask(gpointer reason)
{
    HOST(pwrctl_request_reboot)(GPOINTER_TO_UINT(reason));
    return FALSE;
}

int pwrctl_request_reboot(unsigned int reason)
{
    g_timeout_add(1000, ask, GUINT_TO_POINTER(reason));
    return 0;
}
