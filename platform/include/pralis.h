/* Settings store: integer keys with change notification.
 *
 * Results: 0 success, negative failure. Every call may be made from any thread; change callbacks
 * arrive on the thread that runs the default GLib main context, whichever thread subscribed. */
#ifndef PRALIS_H
#define PRALIS_H

#ifdef __cplusplus
extern "C" {
#endif

/* A changed key, valid only during the callback that receives it. */
typedef struct keynode keynode;

typedef void (*pralis_key_changed_cb)(keynode* node, void* user_data);

/* Reads `key` into `*value`, which is untouched on failure. */
int pralis_get_int(const char* key, int* value);

int pralis_set_int(const char* key, int value);

/* Calls `cb` with `user_data` after every change of `key` until pralis_ignore_key_changed. */
int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data);

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb);

/* The new value itself, not a status. */
int pralis_keynode_get_int(const keynode* node);

#ifdef __cplusplus
}
#endif

#endif
