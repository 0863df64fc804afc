/* Device power: state, power-off, power locks and reboot requests.
 *
 * Results: 0 success, negative failure. Every call may be made from any thread; callbacks arrive on
 * the thread that runs the default GLib main context. */
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

/* The state's number: 0 = normal (switched on); negative = cannot be read. */
int pwrctl_get_state(void);

int pwrctl_subscribe_state_changed_event(pwrctl_state_cb cb, void* user_data);
int pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb cb);
int pwrctl_subscribe_poweroff_event(pwrctl_poweroff_cb cb, void* user_data);
int pwrctl_unsubscribe_poweroff_event(pwrctl_poweroff_cb cb);

/* Keeps the set from switching off for `duration_ms` milliseconds, or until the lock of the same
 * `kind` is released or its owner ends. */
int pwrctl_lock_state(int kind, unsigned int duration_ms);
int pwrctl_unlock_state(int kind);

int pwrctl_request_reboot(unsigned int reason);

#ifdef __cplusplus
}
#endif

#endif
