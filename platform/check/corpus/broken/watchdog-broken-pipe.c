/* A notice is written to a pipe whose other end is closed.
 *
 * Rule: hangwatch.h: a failure is a negative result.
 * Seen: the process was ended by SIGPIPE in hangwatch_watchdog_notify. */
#include <unistd.h>

#include "hangwatch.h"

int hangwatch_watchdog_notify(void)
{
    int ends[2];
    if (pipe(ends) != 0) {
        return -1;
    }
    close(ends[0]);
    const int result = write(ends[1], "!", 1) == 1 ? 0 : -1;
    close(ends[1]);
    return result;
}
