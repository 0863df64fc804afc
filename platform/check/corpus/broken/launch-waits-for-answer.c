/* A request is not sent before the application has answered, for which one that does not exist takes for
 * ever.
 *
 * Rule: applaunch.h, applaunch_send_launch_request: the answer comes by the callback; the call sends.
 * Seen: the launch of an unknown application does not return. */
#include <unistd.h>

#include "applaunch.h"
#include "platform/check/corpus/base.h"

int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb cb, void* user_data)
{
    const int result = HOST(applaunch_send_launch_request)(request, cb, user_data);
    for (int seconds = 0; result == 0 && seconds < 120; ++seconds) {
        sleep(1);
    }
    return result;
}
