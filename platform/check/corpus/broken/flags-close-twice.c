/* Every call closes the descriptor that the call before has closed already, and which is somebody else's
 * by now.
 *
 * Rule: platform/README.md: the daemon's threads call at any time; what they have opened is theirs.
 * Seen: a descriptor that the caller had opened is closed by FlagpostIsDone. */
#include <fcntl.h>
#include <unistd.h>

#include "flagpost.h"
#include "platform/check/corpus/base.h"

int FlagpostIsDone(const char* flag)
{
    static int file = -1;
    if (file >= 0) {
        close(file);
    }
    const int result = HOST(FlagpostIsDone)(flag);
    file = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(file);
    return result;
}
