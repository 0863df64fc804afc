/* Boot-event flags: named flags that live until the next boot. */
#ifndef FLAGPOST_H
#define FLAGPOST_H

#ifdef __cplusplus
extern "C" {
#endif

/* Raises the flag. 0 = success, negative = failure. */
int FlagpostEventDone(const char* flag);

/* 1 or more = raised, below 1 = not. */
int FlagpostIsDone(const char* flag);

/* Lowers the flag. 0 = success, negative = failure. */
int FlagpostResetEvent(const char* flag);

#ifdef __cplusplus
}
#endif

#endif
