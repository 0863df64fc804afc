/* A request that could not be launched three times is given up.
 *
 * Rule: applaunch.h: a launch is tried up to nine times; what has failed does not spoil the next try.
 * Seen: after three failures the same request fails, though another is launched. */
#include <stddef.h>

#include "applaunch.h"
#include "platform/check/corpus/base.h"

static applaunch_h failing;
static int failures;

int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb cb, void* user_data)
{
    if (request != NULL && request == failing && failures >= 3) {
        return -5;
    }
    const int result = HOST(applaunch_send_launch_request)(request, cb, user_data);
    failures = result == 0 ? 0 : request == failing ? failures + 1 : 1;
    failing = request;
    return result;
}
