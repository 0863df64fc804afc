/* Who looks at a raised flag lowers it.
 *
 * Rule: flagpost.h: flags live until the next boot, or until FlagpostResetEvent.
 * Seen: a raised flag is not raised any more when it is looked at for the second time. */
#include "flagpost.h"
#include "platform/check/corpus/base.h"

int FlagpostIsDone(const char* flag)
{
    const int is_raised = HOST(FlagpostIsDone)(flag);
    HOST(FlagpostResetEvent)(flag);
    return is_raised;
}
