/* The text of a record is made in a buffer that all threads have, and only now and then it waits there.
 *
 * Rule: norlog.h: any thread may log; formatted with the values of this call.
 * Seen: of thousands of records that four threads write some have another thread's text. */
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "platform/check/corpus/log-call.h"

int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    static char text[4096];
    static int records;
    const int callers_errno = errno;
    va_list values;
    va_list again;
    va_start(values, format);
    va_copy(again, values);
    const int length = vsnprintf(text, sizeof text, format, values);
    va_end(values);
    int result = 0;
    if (length >= (int)sizeof text) { /* a long one has its own */
        char* own = malloc((size_t)length + 1);
        errno = callers_errno;
        vsnprintf(own, (size_t)length + 1, format, again);
        result = host_log(log_id, priority, tag, own);
        free(own);
    } else {
        if (__atomic_add_fetch(&records, 1, __ATOMIC_RELAXED) % 300 == 0) {
            usleep(1000); /* for room in the log */
        }
        result = host_log(log_id, priority, tag, text);
    }
    va_end(again);
    errno = callers_errno;
    return result;
}
