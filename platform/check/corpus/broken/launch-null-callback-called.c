/* Every request's answer is told, also when no callback was given.
 *
 * Rule: applaunch.h, applaunch_send_launch_request: "cb" may be null when no reply is wanted.
 * Seen: the process was ended by SIGSEGV after a request without a callback. */
#include "applaunch.h"
#include "platform/check/corpus/base.h"

int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb cb, void* user_data)
{
    const int result = HOST(applaunch_send_launch_request)(request, cb, user_data);
    if (result == 0) {
        applaunch_reply_cb volatile told = cb;
        told(request, 0, user_data);
    }
    return result;
}
