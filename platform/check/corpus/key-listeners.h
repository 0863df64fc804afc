/* The subscriptions to settings keys as one list, which a change of a key is told along: the sound platform
 * tells each key once, and tell_all() of the platform whoever is on the list. */
#ifndef PLATFORM_CHECK_CORPUS_KEY_LISTENERS_H
#define PLATFORM_CHECK_CORPUS_KEY_LISTENERS_H

#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

struct listener {
    char key[128];
    pralis_key_changed_cb cb;
    void* user_data;
};

enum { MOST_LISTENERS = 256 }; /* at a time */

static struct listener listeners[MOST_LISTENERS];
static int listener_count;
static pthread_mutex_t listening = PTHREAD_MUTEX_INITIALIZER;

/* On the main loop's thread. */
static void tell_all(const char* key, keynode* node);

static void on_change(keynode* node, void* key)
{
    tell_all(key, node);
}

static inline int count_of(const char* key)
{
    int count = 0;
    for (int i = 0; i < listener_count; ++i) {
        count += strcmp(listeners[i].key, key) == 0;
    }
    return count;
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    if (key == NULL || cb == NULL || listener_count == MOST_LISTENERS) {
        return -1;
    }
    pthread_mutex_lock(&listening);
    const int is_first = count_of(key) == 0;
    struct listener* const added = &listeners[listener_count++];
    snprintf(added->key, sizeof added->key, "%s", key);
    added->cb = cb;
    added->user_data = user_data;
    pthread_mutex_unlock(&listening);
    return is_first ? HOST(pralis_notify_key_changed)(key, on_change, strdup(key)) : 0;
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    int is_found = 0;
    pthread_mutex_lock(&listening);
    for (int i = 0; i < listener_count; ++i) {
        if (listeners[i].cb == cb && strcmp(listeners[i].key, key) == 0) {
            memmove(&listeners[i], &listeners[i + 1], (size_t)(listener_count - i - 1) * sizeof listeners[0]);
            --listener_count;
            --i;
            is_found = 1;
        }
    }
    const int is_last = count_of(key) == 0;
    pthread_mutex_unlock(&listening);
    if (!is_found) {
        return -1;
    }
    return is_last ? HOST(pralis_ignore_key_changed)(key, on_change) : 0;
}

#endif
