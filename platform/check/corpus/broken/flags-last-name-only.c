/* A flag is known by the last part of its path.
 *
 * Rule: flagpost.h: each name, a path below /tmp, is a flag of its own.
 * Seen: a flag is raised with that of the same last name in another directory. */
#include <stdio.h>
#include <string.h>

#include "flagpost.h"
#include "platform/check/corpus/base.h"

static const char* last_name(const char* flag, char (*name)[4096])
{
    const char* const slash = flag == NULL ? NULL : strrchr(flag, '/');
    snprintf(*name, sizeof *name, "/tmp/%s", slash == NULL ? "" : slash + 1);
    return *name;
}

int FlagpostEventDone(const char* flag)
{
    char name[4096];
    return HOST(FlagpostEventDone)(last_name(flag, &name));
}

int FlagpostIsDone(const char* flag)
{
    char name[4096];
    return HOST(FlagpostIsDone)(last_name(flag, &name));
}

int FlagpostResetEvent(const char* flag)
{
    char name[4096];
    return HOST(FlagpostResetEvent)(last_name(flag, &name));
}
