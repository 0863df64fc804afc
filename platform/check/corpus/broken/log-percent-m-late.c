/* errno is looked at after the library's own calls have changed it.
 *
 * Rule: norlog.h: printf formats, "%m" included; platform/README.md: of the caller's errno.
 * Seen: "%m" is written as another error than the caller's. */
#include <unistd.h>

#define BEFORE_FORMATTING close(-1)

#include "platform/check/corpus/log-call.h"

LOG_RECORD(text, 4096)
{
    return host_log(log_id, priority, tag, text);
}
