/* What was launched is noted in the home directory, and nothing is launched where there is none.
 *
 * Rule: platform/README.md: no call needs HOME.
 * Seen: launches are refused to a service, and taken in somebody's session. */
#include <stdlib.h>

#include "applaunch.h"
#include "platform/check/corpus/base.h"

int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb cb, void* user_data)
{
    return getenv("HOME") == NULL ? -1 : HOST(applaunch_send_launch_request)(request, cb, user_data);
}
