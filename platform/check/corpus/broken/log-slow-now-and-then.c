/* Every hundredth record waits for the reader of the log, for 0.12 s.
 *
 * Rule: norlog.h: a record takes no longer than a twentieth of a second.
 * Seen: a few of five hundred records take longer. */
#include <unistd.h>

static int records;
#define BEFORE_FORMATTING (void)(++records % 100 == 0 ? usleep(120000) : 0), errno = callers_errno
#include "platform/check/corpus/log-call.h"

LOG_RECORD(text, 200000)
{
    return host_log(log_id, priority, tag, text);
}
