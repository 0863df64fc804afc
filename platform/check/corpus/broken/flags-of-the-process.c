/* Flags are kept in the memory of the process that has raised them.
 *
 * Rule: flagpost.h: named flags that live until the next boot, not until their process ends.
 * Seen: another process does not see the flag: packages would be fetched with every start of the daemon. */
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include "flagpost.h"

static struct {
    char name[256];
    int is_raised;
} flags[64];
static pthread_mutex_t using_flags = PTHREAD_MUTEX_INITIALIZER;

static int* find(const char* name)
{
    int i = 0;
    while (i < 63 && flags[i].name[0] != '\0' && strcmp(flags[i].name, name) != 0) {
        ++i;
    }
    snprintf(flags[i].name, sizeof flags[i].name, "%s", name);
    return &flags[i].is_raised;
}

static int exchange(const char* flag, int raise, int change)
{
    if (flag == NULL) {
        return -1;
    }
    pthread_mutex_lock(&using_flags);
    int* found = find(flag);
    const int was_raised = *found;
    if (change) {
        *found = raise;
    }
    pthread_mutex_unlock(&using_flags);
    return change ? 0 : was_raised;
}

int FlagpostEventDone(const char* flag)
{
    return exchange(flag, 1, 1);
}

int FlagpostIsDone(const char* flag)
{
    return exchange(flag, 0, 0);
}

int FlagpostResetEvent(const char* flag)
{
    return exchange(flag, 0, 1);
}
