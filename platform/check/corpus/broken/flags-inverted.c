/* A raised flag is 0, one that is not raised 1.
 *
 * Rule: flagpost.h, FlagpostIsDone: 1 or more = raised, below 1 = not.
 * Seen: a flag was raised, and is told as not raised. */
#include "flagpost.h"
#include "platform/check/corpus/base.h"

int FlagpostIsDone(const char* flag)
{
    return HOST(FlagpostIsDone)(flag) < 1 ? 1 : 0;
}
