/* A text that does not fit into a line is made elsewhere, and handed on as a format.
 *
 * Rule: norlog.h: logged whole, formatted once with the values of this call.
 * Seen: of a long text with "%%" in a value one sign of percent is written. */
#include <string.h>

#include "platform/check/corpus/log-call.h"

#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

LOG_RECORD(text, 200000)
{
    return strlen(text) < 1024 ? host_log(log_id, priority, tag, text)
                               : HOST(__norlog_print)(log_id, priority, tag, text);
}
