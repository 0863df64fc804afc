/* A platform's own __norlog_print in front of the sound one: LOG_RECORD(text, size) { ... } is its body,
 * which has the formatted text, cut to `size` bytes, beside the other parameters. */
#ifndef PLATFORM_CHECK_CORPUS_LOG_CALL_H
#define PLATFORM_CHECK_CORPUS_LOG_CALL_H

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>

#include "norlog.h"
#include "platform/check/corpus/base.h"

/* What is done before the text is made. */
#ifndef BEFORE_FORMATTING
#define BEFORE_FORMATTING ((void)0)
#endif

static inline int host_log(int log_id, int priority, const char* tag, const char* text)
{
    return HOST(__norlog_print)(log_id, priority, tag, "%s", text);
}

#define LOG_RECORD(text, size)                                                                               \
    static int record(int log_id, int priority, const char* tag, const char* text);                          \
    int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)                   \
    {                                                                                                        \
        char made[size];                                                                                     \
        const int callers_errno = errno;                                                                     \
        va_list values;                                                                                      \
        BEFORE_FORMATTING;                                                                                   \
        va_start(values, format);                                                                            \
        vsnprintf(made, sizeof made, format, values);                                                        \
        va_end(values);                                                                                      \
        errno = callers_errno;                                                                               \
        return record(log_id, priority, tag, made);                                                          \
    }                                                                                                        \
    static int record(int log_id, int priority, const char* tag, const char* text)

#endif
