/* Unusual but right: the log takes records of 400 bytes, and a longer text goes in several, which are
 * numbered.
 *
 * Rule: norlog.h: the text has any length, and is logged whole.
 */
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "platform/check/corpus/log-call.h"

int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    enum { PIECE = 400 };
    const int callers_errno = errno;
    char* text = NULL;
    va_list values;
    va_start(values, format);
    const int length = vasprintf(&text, format, values);
    va_end(values);
    if (length < 0) {
        errno = callers_errno;
        return -1;
    }
    int result = 0;
    for (int at = 0, number = 1; at == 0 || at < length; at += PIECE, ++number) {
        char piece[PIECE + 32];
        snprintf(piece, sizeof piece, "(%d) %.*s", number, PIECE, text + at);
        result = host_log(log_id, priority, tag, piece) == 0 ? result : -1;
    }
    free(text);
    errno = callers_errno;
    return result;
}
