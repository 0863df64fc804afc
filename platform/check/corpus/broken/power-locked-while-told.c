/* The power room is locked while a callback runs, for all threads but the one that it runs on.
 *
 * Rule: pwrctl.h: calls of other threads do not wait for a callback's end.
 * Seen: another thread asks for the state while a callback takes its time, and gets its answer when that has
 *       returned. */
#include <pthread.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

enum { MOST_LISTENERS = 64 };

static struct {
    pwrctl_state_cb cb;
    void* user_data;
} listeners[MOST_LISTENERS];
static pthread_mutex_t room = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

static int on_state(pwrctl_state_info* info, void* user_data)
{
    (void)user_data;
    pthread_mutex_lock(&room);
    for (int i = 0; i < MOST_LISTENERS; ++i) {
        if (listeners[i].cb != NULL) {
            listeners[i].cb(info, listeners[i].user_data);
        }
    }
    pthread_mutex_unlock(&room);
    return 0;
}

int pwrctl_subscribe_state_changed_event(pwrctl_state_cb cb, void* user_data)
{
    static int is_subscribed;
    int at = 0;
    pthread_mutex_lock(&room);
    while (at < MOST_LISTENERS && listeners[at].cb != NULL) {
        ++at;
    }
    const int is_taken = cb != NULL && at < MOST_LISTENERS;
    if (is_taken) {
        listeners[at].cb = cb;
        listeners[at].user_data = user_data;
    }
    const int is_first = is_taken && !is_subscribed;
    is_subscribed = is_subscribed || is_taken;
    pthread_mutex_unlock(&room);
    if (!is_taken) {
        return -1;
    }
    return is_first ? HOST(pwrctl_subscribe_state_changed_event)(on_state, NULL) : 0;
}

int pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb cb)
{
    int result = -1;
    pthread_mutex_lock(&room);
    for (int i = 0; i < MOST_LISTENERS; ++i) {
        if (cb != NULL && listeners[i].cb == cb) {
            listeners[i].cb = NULL;
            result = 0;
        }
    }
    pthread_mutex_unlock(&room);
    return result;
}

int pwrctl_get_state(void)
{
    pthread_mutex_lock(&room);
    const int state = HOST(pwrctl_get_state)();
    pthread_mutex_unlock(&room);
    return state;
}
