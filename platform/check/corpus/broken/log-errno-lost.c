/* Each record leaves errno at zero.
 *
 * Rule: platform/README.md: both logs leave errno alone.
 * Seen: errno is another one after __norlog_print. */
#include <errno.h>

#include "platform/check/corpus/log-call.h"

LOG_RECORD(text, 4096)
{
    const int result = host_log(log_id, priority, tag, text);
    errno = 0;
    return result;
}
