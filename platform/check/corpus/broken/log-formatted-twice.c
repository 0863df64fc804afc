/* The text that was made of the format is taken as a format again.
 *
 * Rule: norlog.h: printf formats: a sign of percent in a value is text.
 * Seen: a value with "%s%n" in it ends the process, or is written as something else. */
#include "platform/check/corpus/log-call.h"

#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

LOG_RECORD(text, 4096)
{
    return HOST(__norlog_print)(log_id, priority, tag, text);
}
