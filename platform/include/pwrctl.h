/* Device power: state, power-off, power locks and reboot requests.
 *
 * Results: 0 success, negative failure. Every call may be made from any thread, the daemon's main loop among
 * them, and answers within half a second.
 *
 * What the daemon relies on:
 * - Callbacks arrive on the thread that runs the default GLib main context, whichever thread subscribed.
 * - They tell of a change of power and of nothing else: a subscription alone calls nobody. None comes after
 *   the end of the subscription has returned; a callback may end its own and others. Calls of other threads
 *   do not wait for a callback's end.
 * - The information belongs to the platform and is valid during the callback. */
#ifndef PWRCTL_H
#define PWRCTL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
    int32_t prev_state;
    int32_t cur_state;
} pwrctl_state_info;

typedef struct {
    int32_t reason;
} pwrctl_poweroff_info;

typedef int (*pwrctl_state_cb)(pwrctl_state_info* info, void* user_data);
typedef int (*pwrctl_poweroff_cb)(pwrctl_poweroff_info* info, void* user_data);

/* The state's number: 0 = normal (switched on); negative = cannot be read. A set that somebody watches is in
 * state 0: no update is offered in another. */
int pwrctl_get_state(void);

/* Each subscription and its end succeeds, also after an earlier one was ended. */
int pwrctl_subscribe_state_changed_event(pwrctl_state_cb cb, void* user_data);
int pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb cb);
int pwrctl_subscribe_poweroff_event(pwrctl_poweroff_cb cb, void* user_data);
int pwrctl_unsubscribe_poweroff_event(pwrctl_poweroff_cb cb);

/* Keeps the set from switching off for `duration_ms` milliseconds, any number of them, or until the lock of
 * the same `kind` is released or its owner ends. Kinds (the daemon's are 0 and 2) are locked and released
 * apart. A lock that is held may be taken anew, for the new duration, and one that is held can be released:
 * by one release, however often it was taken, and by any thread. The release of one that is not may succeed
 * or fail, but when the platform tells the difference, it tells it by kind and by time. */
int pwrctl_lock_state(int kind, unsigned int duration_ms);
int pwrctl_unlock_state(int kind);

/* Returns before the set ends; the reboot follows within a minute. The daemon ends right after the call. */
int pwrctl_request_reboot(unsigned int reason);

#ifdef __cplusplus
}
#endif

#endif
