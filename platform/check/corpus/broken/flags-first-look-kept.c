/* What was seen of a flag at the first look is answered until this process changes the flag itself.
 *
 * Rule: flagpost.h: a flag is the same for every process.
 * Seen: a flag that another process has raised after the first look is not raised here. */
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include "flagpost.h"
#include "platform/check/corpus/base.h"

enum { MOST = 64 };

static struct {
    char name[256];
    int answer;
} seen[MOST];
static int count;
static pthread_mutex_t looking = PTHREAD_MUTEX_INITIALIZER;

static int place_of(const char* flag)
{
    int i = 0;
    while (i < count && strcmp(seen[i].name, flag) != 0) {
        ++i;
    }
    return i;
}

static void forget(const char* flag)
{
    pthread_mutex_lock(&looking);
    const int i = flag == NULL ? count : place_of(flag);
    if (i < count) {
        seen[i] = seen[--count];
    }
    pthread_mutex_unlock(&looking);
}

int FlagpostIsDone(const char* flag)
{
    if (flag == NULL) {
        return HOST(FlagpostIsDone)(flag);
    }
    pthread_mutex_lock(&looking);
    const int i = place_of(flag);
    const int answer = i < count ? seen[i].answer : HOST(FlagpostIsDone)(flag);
    if (i == count && count < MOST) {
        snprintf(seen[count].name, sizeof seen[count].name, "%s", flag);
        seen[count++].answer = answer;
    }
    pthread_mutex_unlock(&looking);
    return answer;
}

int FlagpostEventDone(const char* flag)
{
    forget(flag);
    return HOST(FlagpostEventDone)(flag);
}

int FlagpostResetEvent(const char* flag)
{
    forget(flag);
    return HOST(FlagpostResetEvent)(flag);
}
