/* Records of the lowest priority are cut after 255 characters, to save room.
 *
 * Rule: norlog.h: the text has any length, and is logged whole.
 * Seen: the end of a long record of priority 3 is missing. */
#include "platform/check/corpus/log-call.h"

LOG_RECORD(text, 200000)
{
    char cut[256];
    snprintf(cut, sizeof cut, "%.255s", text);
    return host_log(log_id, priority, tag, priority <= 3 ? cut : text);
}
