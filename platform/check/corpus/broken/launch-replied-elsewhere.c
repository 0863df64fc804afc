/* The reply is told by a thread of the platform, as soon as the launch is sent.
 *
 * Rule: platform/README.md: callbacks come on the thread that runs the default main context.
 * Seen: the reply comes on another thread. */
#include <pthread.h>
#include <stdlib.h>

#include "applaunch.h"
#include "platform/check/corpus/base.h"

struct reply {
    applaunch_h request;
    applaunch_reply_cb cb;
    void* user_data;
};

static void* tell(void* data)
{
    struct reply* reply = data;
    reply->cb(reply->request, 0, reply->user_data);
    free(reply);
    return NULL;
}

int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb cb, void* user_data)
{
    const int result = HOST(applaunch_send_launch_request)(request, NULL, NULL);
    if (result == 0 && cb != NULL) {
        struct reply* reply = malloc(sizeof *reply);
        pthread_t thread;
        *reply = (struct reply){request, cb, user_data};
        pthread_create(&thread, NULL, tell, reply);
        pthread_detach(thread);
    }
    return result;
}
