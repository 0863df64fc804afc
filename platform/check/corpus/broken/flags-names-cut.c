/* Flags are told apart by their first eight characters.
 *
 * Rule: flagpost.h: named flags, each for itself.
 * Seen: a flag is raised after another one was. */
#include <stdio.h>

#include "flagpost.h"
#include "platform/check/corpus/base.h"

static const char* cut(const char* flag, char (*name)[9])
{
    snprintf(*name, sizeof *name, "%s", flag == NULL ? "" : flag);
    return *name;
}

int FlagpostEventDone(const char* flag)
{
    char name[9];
    return HOST(FlagpostEventDone)(cut(flag, &name));
}

int FlagpostIsDone(const char* flag)
{
    char name[9];
    return HOST(FlagpostIsDone)(cut(flag, &name));
}

int FlagpostResetEvent(const char* flag)
{
    char name[9];
    return HOST(FlagpostResetEvent)(cut(flag, &name));
}
