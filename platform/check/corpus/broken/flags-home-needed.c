/* A file in the home directory may switch the flags' trace on; a service has no such directory.
 *
 * Rule: platform/README.md: no call needs HOME.
 * Seen: the first look at a flag ends a process without HOME by SIGSEGV. */
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "flagpost.h"
#include "platform/check/corpus/base.h"

int FlagpostIsDone(const char* flag)
{
    char path[4096] = "";
    strncpy(path, getenv("HOME"), sizeof path - 32);
    strcat(path, "/.flagpost-trace");
    return access(path, F_OK) == 0 ? 0 : HOST(FlagpostIsDone)(flag);
}
