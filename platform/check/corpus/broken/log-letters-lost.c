/* What is no letter of ASCII is written as a question mark.
 *
 * Rule: norlog.h: the text has any length, and is logged whole.
 * Seen: letters of two and three bytes are gone. */
#include "platform/check/corpus/log-call.h"

LOG_RECORD(text, 200000)
{
    static __thread char plain[200000];
    char* end = plain;
    for (; *text != '\0'; ++text) {
        *end++ = (char)((unsigned char)*text > 127 ? '?' : *text);
    }
    *end = '\0';
    return host_log(log_id, priority, tag, plain);
}
