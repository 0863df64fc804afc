/* All threads make their texts in the same place.
 *
 * Rule: platform/README.md: every call may come from any thread, several at a time.
 * Seen: of two threads that log at the same time, one's text is written in the place of the other's. */
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include "platform/check/corpus/log-call.h"

int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    static char text[8192];
    va_list values;
    va_start(values, format);
    vsnprintf(text, sizeof text, format, values);
    va_end(values);
    usleep(2000); /* the rest of what there is to do */
    return host_log(log_id, priority, tag, text);
}
