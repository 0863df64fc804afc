/* A text that does not fit is made once more in a larger buffer, after a look at a file that is not there.
 *
 * Rule: norlog.h: "%m" stands for the errno that the caller held.
 * Seen: "%m" is right in short texts and another error in long ones. */
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "platform/check/corpus/log-call.h"

__attribute__((format(printf, 2, 0))) static char* made_anew(int length, const char* format, va_list values)
{
    char* const text = malloc((size_t)length + 1);
    if (text != NULL && access("/etc/platform-log-limit", R_OK) != 0) {
        vsnprintf(text, (size_t)length + 1, format, values);
    }
    return text;
}

int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    const int callers_errno = errno;
    char usual[512];
    va_list values;
    va_list again;
    va_start(values, format);
    va_copy(again, values);
    const int length = vsnprintf(usual, sizeof usual, format, values);
    char* const longer = length >= (int)sizeof usual ? made_anew(length, format, again) : NULL;
    va_end(again);
    va_end(values);
    const int result = host_log(log_id, priority, tag, longer != NULL ? longer : usual);
    free(longer);
    errno = callers_errno;
    return result;
}
