/* Platform log.
 *
 * What the daemon relies on: any thread may log, and a record takes no longer than a twentieth of a second.
 * The text has any length, and is logged whole, formatted once with the values of this call; "%m" stands for
 * the errno that the caller held. A record is out of the process within a moment, as the daemon's end flushes
 * nothing. errno is left as it was. */
#ifndef NORLOG_H
#define NORLOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* log_id 2 = system buffer; priority 3 debug, 4 info, 5 warning, 6 error; printf formats, "%m" included. A
 * negative result is a failure; any other is none. */
int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 4, 5)))
#endif
    ;

#ifdef __cplusplus
}
#endif

#endif
