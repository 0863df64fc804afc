/* Texts are kept for each format and taken from there, whatever the values are the next time.
 *
 * Rule: norlog.h: formatted once with the values of this call.
 * Seen: the second record of one place has the text of the first. */
#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include "platform/check/corpus/log-call.h"

enum { MOST_FORMATS = 256 };

static pthread_mutex_t keeping = PTHREAD_MUTEX_INITIALIZER;
static const char* formats[MOST_FORMATS];
static char* texts[MOST_FORMATS];
static int format_count;

__attribute__((format(printf, 1, 0))) static const char* text_of(const char* format, va_list values)
{
    for (int i = 0; i < format_count; ++i) {
        if (formats[i] == format) {
            return texts[i];
        }
    }
    char* text = NULL;
    if (format_count == MOST_FORMATS || vasprintf(&text, format, values) < 0) {
        return "";
    }
    formats[format_count] = format;
    texts[format_count] = text;
    ++format_count;
    return text;
}

int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    const int callers_errno = errno;
    va_list values;
    va_start(values, format);
    pthread_mutex_lock(&keeping);
    errno = callers_errno;
    const char* const text = text_of(format, values);
    pthread_mutex_unlock(&keeping);
    va_end(values);
    const int result = host_log(log_id, priority, tag, text);
    errno = callers_errno;
    return result;
}
