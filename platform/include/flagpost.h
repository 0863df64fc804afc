/* Boot-event flags: named flags that live until the next boot.
 *
 * Any thread may call, the daemon's main loop among them; the answer comes within half a second. A flag
 * outlives the process that has raised it and is the same for every process. Each name, a path below /tmp in
 * a directory that is there, is a flag of its own, lowered until it is raised. Raising or lowering twice is
 * no failure. */
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
