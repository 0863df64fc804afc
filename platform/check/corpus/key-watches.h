/* The subscriptions to settings keys, kept by the platform itself: the sound one tells it of every change,
 * and its own deliver() tells whoever has subscribed. So each platform says with a few lines what it does
 * otherwise. */
#ifndef PLATFORM_CHECK_CORPUS_KEY_WATCHES_H
#define PLATFORM_CHECK_CORPUS_KEY_WATCHES_H

#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

struct keynode {
    int value;
};

struct watch {
    int is_live;
    char key[128];
    pralis_key_changed_cb cb;
    void* user_data;
};

enum { MOST_WATCHES = 4096 }; /* in the life of a process: none is used again */

static struct watch watches[MOST_WATCHES];
static int watch_count;
static pthread_mutex_t watching = PTHREAD_MUTEX_INITIALIZER;

/* On the main loop's thread, for a watch that is live. */
static void deliver(const struct watch* watch, int value);

static inline void call_back(const struct watch* watch, int value)
{
    struct keynode node = {value};
    watch->cb(&node, watch->user_data);
}

static inline void on_change(keynode* node, void* watch)
{
    if (((const struct watch*)watch)->is_live) {
        deliver((const struct watch*)watch, HOST(pralis_keynode_get_int)(node));
    }
}

static inline struct watch* new_watch(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    struct watch* watch = NULL;
    pthread_mutex_lock(&watching);
    if (watch_count < MOST_WATCHES) {
        watch = &watches[watch_count++];
        snprintf(watch->key, sizeof watch->key, "%s", key);
        watch->cb = cb;
        watch->user_data = user_data;
        watch->is_live = 1;
    }
    pthread_mutex_unlock(&watching);
    return watch;
}

static inline int begin_watch(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    struct watch* watch = key == NULL || cb == NULL ? NULL : new_watch(key, cb, user_data);
    int result = watch == NULL ? -1 : HOST(pralis_notify_key_changed)(key, on_change, watch);
    if (result != 0 && watch != NULL) {
        watch->is_live = 0;
    }
    return result;
}

static inline int end_watch(const char* key, pralis_key_changed_cb cb)
{
    int is_found = 0;
    int are_others = 0;
    pthread_mutex_lock(&watching);
    for (int i = 0; i < watch_count; ++i) {
        struct watch* watch = &watches[i];
        if (watch->is_live && strcmp(watch->key, key) == 0) {
            is_found |= watch->cb == cb;
            are_others |= watch->cb != cb;
            watch->is_live = watch->cb != cb;
        }
    }
    pthread_mutex_unlock(&watching);
    if (!is_found) {
        return -1;
    }
    return are_others ? 0 : HOST(pralis_ignore_key_changed)(key, on_change);
}

int pralis_keynode_get_int(const keynode* node)
{
    return node == NULL ? -1 : node->value;
}

#endif
