/* There is room for sixteen flags.
 *
 * Rule: flagpost.h: each name is a flag of its own.
 * Seen: the seventeenth cannot be raised. */
#include "flagpost.h"
#include "platform/check/corpus/base.h"

static int raised;

int FlagpostEventDone(const char* flag)
{
    const int is_new = HOST(FlagpostIsDone)(flag) < 1;
    if (is_new && raised >= 16) {
        return -28;
    }
    raised += is_new;
    return HOST(FlagpostEventDone)(flag);
}

int FlagpostResetEvent(const char* flag)
{
    raised -= HOST(FlagpostIsDone)(flag) >= 1;
    return HOST(FlagpostResetEvent)(flag);
}
