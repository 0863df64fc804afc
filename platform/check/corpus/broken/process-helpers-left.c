/* A helper is started for every raised flag, and goes on for a minute.
 *
 * Rule: platform/README.md: a call that is made again and again keeps no more processes each time.
 * Seen: after twenty calls there are twenty helpers. */
#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>

#include "flagpost.h"
#include "platform/check/corpus/base.h"

extern char** environ;

int FlagpostEventDone(const char* flag)
{
    char* const arguments[] = {(char[]){"sleep"}, (char[]){"60"}, NULL};
    posix_spawn_file_actions_t quiet;
    pid_t helper = 0;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&quiet, 2, "/dev/null", O_WRONLY, 0);
    posix_spawnp(&helper, arguments[0], &quiet, NULL, arguments, environ);
    posix_spawn_file_actions_destroy(&quiet);
    return HOST(FlagpostEventDone)(flag);
}
