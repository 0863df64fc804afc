/* A text that is the same as the one before is not written.
 *
 * Rule: norlog.h: a record is logged whole, each of them.
 * Seen: of three records with one text one is written. */
#include <string.h>

#include "platform/check/corpus/log-call.h"

LOG_RECORD(text, 200000)
{
    static __thread char before[256];
    if (strncmp(before, text, sizeof before - 1) == 0) {
        return 0;
    }
    snprintf(before, sizeof before, "%.255s", text);
    return host_log(log_id, priority, tag, text);
}
