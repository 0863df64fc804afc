/* A request that waits for its reply is kept until that has come, also when it is destroyed meanwhile.
 *
 * Rule: applaunch.h: a reply is told once at most, and none after the request was destroyed.
 * Seen: who destroys a request right after it was sent is told the reply. */
#include <pthread.h>
#include <stdlib.h>

#include "applaunch.h"
#include "platform/check/corpus/base.h"

struct sent {
    struct sent* next;
    applaunch_h request;
    applaunch_reply_cb cb;
    void* user_data;
    int is_destroyed;
};

static struct sent* first;
static pthread_mutex_t sending = PTHREAD_MUTEX_INITIALIZER;

/* With the lock held. */
static struct sent** place_of(applaunch_h request)
{
    struct sent** place = &first;
    while (*place != NULL && (*place)->request != request) {
        place = &(*place)->next;
    }
    return place;
}

static struct sent* taken_off(applaunch_h request)
{
    pthread_mutex_lock(&sending);
    struct sent** const place = place_of(request);
    struct sent* const found = *place;
    if (found != NULL) {
        *place = found->next;
    }
    pthread_mutex_unlock(&sending);
    return found;
}

static void on_reply(applaunch_h request, int result, void* nothing)
{
    (void)nothing;
    struct sent* const one = taken_off(request);
    if (one == NULL) {
        return;
    }
    one->cb(request, result, one->user_data);
    if (one->is_destroyed) {
        HOST(applaunch_destroy)(request);
    }
    free(one);
}

int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb cb, void* user_data)
{
    if (request == NULL || cb == NULL) {
        return HOST(applaunch_send_launch_request)(request, cb, user_data);
    }
    struct sent* const one = malloc(sizeof *one);
    pthread_mutex_lock(&sending);
    *one = (struct sent){first, request, cb, user_data, 0};
    first = one;
    pthread_mutex_unlock(&sending);
    const int result = HOST(applaunch_send_launch_request)(request, on_reply, NULL);
    if (result != 0) {
        free(taken_off(request));
    }
    return result;
}

int applaunch_destroy(applaunch_h request)
{
    pthread_mutex_lock(&sending);
    struct sent* const one = *place_of(request);
    if (one != NULL) {
        one->is_destroyed = 1;
    }
    pthread_mutex_unlock(&sending);
    return one != NULL ? 0 : HOST(applaunch_destroy)(request);
}
