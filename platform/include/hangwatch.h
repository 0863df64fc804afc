/* Deadlock watchdog: a registered service must notify it before its period has passed.
 *
 * Results: 0 success, negative failure. */
#ifndef HANGWATCH_H
#define HANGWATCH_H

#ifdef __cplusplus
extern "C" {
#endif

/* The unit of `period` is the platform's. */
int hangwatch_register_watchdog_service(int period);
int hangwatch_watchdog_notify(void);
int hangwatch_unregister_watchdog_service(void);

#ifdef __cplusplus
}
#endif

#endif
