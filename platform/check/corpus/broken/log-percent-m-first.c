/* The log is looked for when the first record comes, and errno tells of that.
 *
 * Rule: norlog.h: "%m" stands for the errno that the caller held, in each record.
 * Seen: the first record of a process tells of another error. */
#include <unistd.h>

static void look_once(void)
{
    static int is_known;
    if (!is_known) {
        is_known = 1;
        access("/dev/log/none", W_OK);
    }
}
#define BEFORE_FORMATTING look_once()
#include "platform/check/corpus/log-call.h"

LOG_RECORD(text, 16384)
{
    return host_log(log_id, priority, tag, text);
}
