/* Unusual but right: a request is a small number in the clothes of a pointer.
 *
 * Rule: applaunch.h: what a request is nobody but the platform knows.
 */
#include <pthread.h>
#include <stdint.h>

#include "applaunch.h"
#include "platform/check/corpus/base.h"

enum { MOST = 8 };

static applaunch_h requests[MOST];
static pthread_mutex_t using_requests = PTHREAD_MUTEX_INITIALIZER;

static applaunch_h found(applaunch_h number)
{
    const uintptr_t at = (uintptr_t)number;
    return at == 0 || at > MOST ? 0 : requests[at - 1];
}

int applaunch_create(applaunch_h* request)
{
    int result = -1;
    *request = 0;
    pthread_mutex_lock(&using_requests);
    for (uintptr_t at = 1; at <= MOST && *request == 0; ++at) {
        if (requests[at - 1] == 0) {
            result = HOST(applaunch_create)(&requests[at - 1]);
            *request = (applaunch_h)(result == 0 ? at : 0);
            break;
        }
    }
    pthread_mutex_unlock(&using_requests);
    return result;
}

int applaunch_destroy(applaunch_h request)
{
    const int result = HOST(applaunch_destroy)(found(request));
    if (found(request) != 0) {
        requests[(uintptr_t)request - 1] = 0;
    }
    return result;
}

int applaunch_add_extra_data(applaunch_h request, const char* key, const char* value)
{
    return HOST(applaunch_add_extra_data)(found(request), key, value);
}

int applaunch_set_app_id(applaunch_h request, const char* app_id)
{
    return HOST(applaunch_set_app_id)(found(request), app_id);
}

/* Replies name the request as its owner knows it. */
struct reply {
    applaunch_h request;
    applaunch_reply_cb cb;
    void* user_data;
};

static struct reply replies[MOST];

static void on_reply(applaunch_h request, int result, void* data)
{
    const struct reply* reply = data;
    (void)request;
    reply->cb(reply->request, result, reply->user_data);
}

int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb cb, void* user_data)
{
    if (found(request) == 0) {
        return -1;
    }
    struct reply* reply = &replies[(uintptr_t)request - 1];
    reply->request = request;
    reply->cb = cb;
    reply->user_data = user_data;
    return HOST(applaunch_send_launch_request)(found(request), cb == 0 ? 0 : on_reply, reply);
}
