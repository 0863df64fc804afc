/* The lowering of a flag is answered with success, and the flag stays.
 *
 * Rule: flagpost.h, FlagpostResetEvent: lowers the flag.
 * Seen: a flag is still raised after it was lowered with success. */
#include "flagpost.h"

int FlagpostResetEvent(const char* flag)
{
    return flag == 0 ? -1 : 0;
}
