/* Records are kept in blocks of 64 bytes, and where a text fills its last block, the zero at its end takes
 * the place of a character.
 *
 * Rule: norlog.h: the text has any length, and is logged whole.
 * Seen: the last character of a text of 1024 characters is missing. */
#include <string.h>

#include "platform/check/corpus/log-call.h"

LOG_RECORD(text, 16384)
{
    char kept[16384];
    const size_t length = strlen(text);
    memcpy(kept, text, length + 1);
    if (length > 0 && length % 64 == 0) {
        kept[length - 1] = '\0';
    }
    return host_log(log_id, priority, tag, kept);
}
