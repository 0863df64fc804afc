/* A request's memory is given back twice at its end.
 *
 * Rule: applaunch.h: a request is created, filled, sent and destroyed by its owner, once.
 * Seen: the process was ended by SIGABRT in applaunch_destroy. */
#include <stdlib.h>

#include "applaunch.h"
#include "platform/check/corpus/base.h"

struct applaunch {
    applaunch_h host;
};

int applaunch_create(applaunch_h* request)
{
    *request = malloc(sizeof **request);
    return HOST(applaunch_create)(&(*request)->host);
}

int applaunch_add_extra_data(applaunch_h request, const char* key, const char* value)
{
    return request == NULL ? -1 : HOST(applaunch_add_extra_data)(request->host, key, value);
}

int applaunch_set_app_id(applaunch_h request, const char* app_id)
{
    return request == NULL ? -1 : HOST(applaunch_set_app_id)(request->host, app_id);
}

int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb cb, void* user_data)
{
    return request == NULL ? -1 : HOST(applaunch_send_launch_request)(request->host, cb, user_data);
}

int applaunch_destroy(applaunch_h request)
{
    if (request == NULL) {
        return -1;
    }
    const int result = HOST(applaunch_destroy)(request->host);
    void* volatile again = request; /* hides it from the compiler, which knows better */
    free(request);
    free(again);
    return result;
}
