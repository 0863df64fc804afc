/* Whoever raises a flag has all his descriptors closed at the next exec.
 *
 * Rule: platform/README.md: the process's descriptors stay as they are.
 * Seen: a descriptor that is to be inherited has FD_CLOEXEC. */
#include <fcntl.h>

#include "flagpost.h"
#include "platform/check/corpus/base.h"

int FlagpostEventDone(const char* flag)
{
    for (int number = 3; number < 256; ++number) {
        const int flags = fcntl(number, F_GETFD);
        if (flags >= 0) {
            fcntl(number, F_SETFD, flags | FD_CLOEXEC);
        }
    }
    return HOST(FlagpostEventDone)(flag);
}
