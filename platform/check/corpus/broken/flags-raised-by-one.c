/* A flag that another process has raised cannot be raised here.
 *
 * Rule: flagpost.h: a flag is the same for every process; raising twice is no failure.
 * Seen: what another process has raised is refused here. */
#include <string.h>

#include "flagpost.h"
#include "platform/check/corpus/base.h"

static char own[64][256];
static int count;

int FlagpostEventDone(const char* flag)
{
    int is_own = 0;
    for (int i = 0; i < count && i < 64; ++i) {
        is_own |= strcmp(own[i], flag) == 0;
    }
    if (!is_own && HOST(FlagpostIsDone)(flag) >= 1) {
        return -17;
    }
    if (!is_own && strlen(flag) < sizeof own[0]) {
        strcpy(own[count++ % 64], flag);
    }
    return HOST(FlagpostEventDone)(flag);
}
