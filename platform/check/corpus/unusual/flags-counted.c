/* Unusual but right: a raised flag is 42, one that is not raised -3.
 *
 * Rule: flagpost.h, FlagpostIsDone: 1 or more = raised, below 1 = not.
 */
#include "flagpost.h"
#include "platform/check/corpus/base.h"

int FlagpostIsDone(const char* flag)
{
    return HOST(FlagpostIsDone)(flag) > 0 ? 42 : -3;
}
