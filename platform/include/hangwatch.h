/* Deadlock watchdog: a registered service must notify it before its period has passed.
 *
 * Results: 0 success, negative failure. The daemon registers once with 60, notifies from its main loop every
 * five seconds, and unregisters at its end, also when it was never registered, which may fail but does no
 * harm. A service that notifies in time is left alone, and so is one that has unregistered. */
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
