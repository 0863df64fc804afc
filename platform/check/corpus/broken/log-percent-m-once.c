/* The first "%m" of a format becomes the reason, and no other one.
 *
 * Rule: norlog.h: "%m" stands for the errno that the caller held.
 * Seen: of a record with "%m" twice the second is another text. */
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "norlog.h"
#include "platform/check/corpus/base.h"

static int record(int log_id, int priority, const char* tag, const char* format, va_list values)
    __attribute__((format(printf, 4, 0)));

static int record(int log_id, int priority, const char* tag, const char* format, va_list values)
{
    char* text = NULL;
    if (vasprintf(&text, format, values) < 0) {
        return -1;
    }
    const int result = HOST(__norlog_print)(log_id, priority, tag, "%s", text);
    free(text);
    return result;
}

int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    const int callers_errno = errno;
    const char* const reason = strstr(format, "%m");
    char* own = NULL;
    va_list values;
    if (reason != NULL && (reason == format || reason[-1] != '%')) {
        if (asprintf(&own, "%.*s%s%s", (int)(reason - format), format, strerror(callers_errno), reason + 2) <
            0) {
            own = NULL;
        }
        errno = 0;
    }
    va_start(values, format);
    const int result = record(log_id, priority, tag, own == NULL ? format : own, values);
    va_end(values);
    free(own);
    errno = callers_errno;
    return result;
}
