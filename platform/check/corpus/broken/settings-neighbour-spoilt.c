/* A key's value is stored with 64 bits, and its upper half falls on the key beside it.
 *
 * Rule: pralis.h: no other key has changed by a write.
 * Seen: the status is written, and the progress has its sign. */
#include <string.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

int pralis_set_int(const char* key, int value)
{
    const int result = HOST(pralis_set_int)(key, value);
    if (result == 0 && strstr(key, "fw_update_status") != NULL) {
        HOST(pralis_set_int)("memory/ep_firmware_update_app/fw_update_progress", value < 0 ? -1 : 0);
    }
    return result;
}
