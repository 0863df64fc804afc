// doUpdate runs a command, with signals of its own, and waits for it.
// finds: nothing
// runs: whole
#define _GNU_SOURCE
#define OWN_verifySlot
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    char* const arguments[] = {(char*)"true", NULL};
    char* const environment[] = {(char*)"LC_ALL=C", NULL};
    posix_spawnattr_t attributes;
    sigset_t defaults;
    pid_t child = 0;
    int status = -1;
    sigfillset(&defaults);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    const int error = posix_spawn(&child, "/bin/true", NULL, &attributes, arguments, environment);
    posix_spawnattr_destroy(&attributes);
    if (error != 0 || waitpid(child, &status, 0) != child || status != 0) {
        return fail(EIO);
    }
    return isImageIn(chip, slot) ? 0 : -1;
}
