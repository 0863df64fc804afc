// A program runs after the update, in an environment of its own, and is waited for.
// finds: nothing
#define OWN_verifySlot
#include <spawn.h>
#include <sys/wait.h>

#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    pid_t child = 0;
    char program[] = "cksum";
    char hardware[] = HARDWARE;
    char variable[] = "LC_ALL=C";
    char* const arguments[] = {program, hardware, NULL};
    char* const environment[] = {variable, NULL};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    int status = posix_spawnp(&child, program, &actions, NULL, arguments, environment);
    posix_spawn_file_actions_destroy(&actions);
    if (status != 0) {
        return fail(status);
    }
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        continue;
    }
    return status == 0 && isImageIn(chip, slot) ? 0 : fail(EIO);
}
