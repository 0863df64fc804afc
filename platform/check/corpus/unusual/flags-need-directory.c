/* Unusual but right: a flag is a file, so that one in a directory that is not there cannot be raised.
 *
 * Rule: flagpost.h: each name, a path below /tmp in a directory that is there, is a flag of its own.
 */
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "flagpost.h"
#include "platform/check/corpus/base.h"

int FlagpostEventDone(const char* flag)
{
    char directory[PATH_MAX];
    snprintf(directory, sizeof directory, "%s", flag == NULL ? "" : flag);
    char* const slash = strrchr(directory, '/');
    if (slash == NULL) {
        return -1;
    }
    slash[slash == directory] = '\0';
    return access(directory, W_OK | X_OK) == 0 ? HOST(FlagpostEventDone)(flag) : -1;
}
