/* Texts are cut after 255 bytes.
 *
 * Rule: platform/README.md: both logs take texts of any length.
 * Seen: the end of a long text is missing in the log. */
#include "platform/check/corpus/log-call.h"

LOG_RECORD(text, 256)
{
    return host_log(log_id, priority, tag, text);
}
