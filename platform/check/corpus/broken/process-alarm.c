/* The alarm clock that limits a launch goes on when the launch has been sent.
 *
 * Rule: applaunch.h: a call does what it is for; SIGALRM would end the daemon ten seconds later.
 * Seen: an alarm is pending after applaunch_send_launch_request (or the process is ended by SIGALRM). */
#include <unistd.h>

#include "applaunch.h"
#include "platform/check/corpus/base.h"

int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb cb, void* user_data)
{
    alarm(10);
    return HOST(applaunch_send_launch_request)(request, cb, user_data);
}
