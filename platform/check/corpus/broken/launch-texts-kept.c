/* An extra's texts are kept as pointers, and read when the request is sent.
 *
 * Rule: platform/README.md: texts that are passed in belong to the daemon and are gone when the call has
 *       returned.
 * Seen: what the application gets is what the memory holds when the request is sent (or the process
 *       crashes). */
#include <stddef.h>

#include "applaunch.h"
#include "platform/check/corpus/base.h"

static const char* keys[8];
static const char* values[8];
static int count;

int applaunch_add_extra_data(applaunch_h request, const char* key, const char* value)
{
    if (request == NULL || key == NULL || value == NULL || count == 8) {
        return -1;
    }
    keys[count] = key;
    values[count++] = value;
    return 0;
}

int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb cb, void* user_data)
{
    for (int i = 0; i < count; ++i) {
        HOST(applaunch_add_extra_data)(request, keys[i], values[i]);
    }
    count = 0;
    return HOST(applaunch_send_launch_request)(request, cb, user_data);
}

int applaunch_destroy(applaunch_h request)
{
    count = 0;
    return HOST(applaunch_destroy)(request);
}
