/* Settings store: integer keys with change notification.
 *
 * Results: 0 success, negative failure. Every call may be made from any thread, the daemon's main loop
 * among them, and answers within half a second.
 *
 * What the daemon relies on:
 * - A value that was written is what every process reads from then on, any int, and no other key has changed
 *   by it. No main loop has to run for that.
 * - Change callbacks arrive on the thread that runs the default GLib main context, whichever thread
 *   subscribed and whether or not that thread still lives; never inside a call.
 * - They come in the order of the changes, those of several keys included, within two seconds, also of
 *   changes that the process itself has made. A write of the value that the key already has may be told or
 *   not.
 * - A subscription alone is no change. A callback may make any call of this header, the end of its own
 *   subscription or of another, a write of its own key and a new subscription included. Calls of other
 *   threads do not wait for its end. One callback may listen to several keys, each with user data of its own.
 * - Key and user data belong to the caller: the key is gone when the call has returned. */
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

/* Calls `cb` with `user_data` after every change of `key`, and of no other key, once, until
 * pralis_ignore_key_changed. */
int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data);

/* None comes after it has returned, whatever has changed before. None comes to a later subscription either.
 * Other keys and callbacks stay subscribed. */
int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb);

/* The new value itself, not a status. It is that of the change that is told, also when the key has changed
 * again since, and stays so while the callback makes calls. */
int pralis_keynode_get_int(const keynode* node);

#ifdef __cplusplus
}
#endif

#endif
