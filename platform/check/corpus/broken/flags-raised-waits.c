/* A flag that is raised already is waited for, until somebody lowers it.
 *
 * Rule: flagpost.h, FlagpostEventDone: raises the flag, which may be raised; flags are also asked for on
 *       the main loop.
 * Seen: FlagpostEventDone does not return when the flag is raised. */
#include <unistd.h>

#include "flagpost.h"
#include "platform/check/corpus/base.h"

int FlagpostEventDone(const char* flag)
{
    while (HOST(FlagpostIsDone)(flag) > 0) {
        usleep(100000);
    }
    return HOST(FlagpostEventDone)(flag);
}
