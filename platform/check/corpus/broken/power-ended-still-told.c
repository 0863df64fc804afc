/* A change is told to a copy of the list of those who listened when it came.
 *
 * Rule: pwrctl.h: no callback comes after the end of the subscription has returned; a callback may end
 * others. Seen: a callback ends that of another, which is called all the same. */
#include <pthread.h>
#include <string.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

struct listener {
    pwrctl_state_cb cb;
    void* user_data;
};

enum { MOST_LISTENERS = 64 };

static struct listener listeners[MOST_LISTENERS];
static int listener_count;
static int is_subscribed;
static pthread_mutex_t listening = PTHREAD_MUTEX_INITIALIZER;

static int on_state(pwrctl_state_info* info, void* user_data)
{
    struct listener copy[MOST_LISTENERS];
    pthread_mutex_lock(&listening);
    const int count = listener_count;
    memcpy(copy, listeners, sizeof copy);
    pthread_mutex_unlock(&listening);
    for (int i = 0; i < count; ++i) {
        copy[i].cb(info, copy[i].user_data);
    }
    (void)user_data;
    return 0;
}

int pwrctl_subscribe_state_changed_event(pwrctl_state_cb cb, void* user_data)
{
    pthread_mutex_lock(&listening);
    const int is_taken = cb != NULL && listener_count < MOST_LISTENERS;
    if (is_taken) {
        listeners[listener_count++] = (struct listener){cb, user_data};
    }
    const int is_first = is_taken && !is_subscribed;
    is_subscribed = is_subscribed || is_taken;
    pthread_mutex_unlock(&listening);
    if (!is_taken) {
        return -1;
    }
    return is_first ? HOST(pwrctl_subscribe_state_changed_event)(on_state, NULL) : 0;
}

int pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb cb)
{
    int result = -1;
    pthread_mutex_lock(&listening);
    for (int i = 0; i < listener_count; ++i) {
        if (listeners[i].cb == cb) {
            listeners[i--] = listeners[--listener_count];
            result = 0;
        }
    }
    pthread_mutex_unlock(&listening);
    return result;
}
