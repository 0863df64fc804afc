/* The mask of new files is another one after a flag was raised.
 *
 * Rule: flagpost.h: a call does what it is for; the update list would get mode 0600, and nobody else
 *       could read it.
 * Seen: the umask is 0077 after FlagpostEventDone. */
#include <sys/stat.h>

#include "flagpost.h"
#include "platform/check/corpus/base.h"

int FlagpostEventDone(const char* flag)
{
    umask(0077);
    return HOST(FlagpostEventDone)(flag);
}
