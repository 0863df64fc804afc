/* Every subscription starts a thread, which stays when it ends.
 *
 * Rule: pralis.h, pralis_ignore_key_changed: the subscription ends, with all that it needed.
 * Seen: the number of threads grows with subscribing and ending it. */
#include <pthread.h>
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

static void* wait_for_changes(void* nothing)
{
    for (;;) {
        pause();
    }
    return nothing;
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    pthread_t thread;
    if (pthread_create(&thread, NULL, wait_for_changes, NULL) == 0) {
        pthread_detach(thread);
    }
    return HOST(pralis_notify_key_changed)(key, cb, user_data);
}
