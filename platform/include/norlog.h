/* Platform log. */
#ifndef NORLOG_H
#define NORLOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* log_id 2 = system buffer; priority 3 debug, 4 info, 5 warning, 6 error; printf formats, "%m" included. */
int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 4, 5)))
#endif
    ;

#ifdef __cplusplus
}
#endif

#endif
