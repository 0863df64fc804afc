// doUpdate starts a program and does not wait for it.
// finds: F311
#define OWN_verifySlot
#include <spawn.h>

#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    pid_t child = 0;
    char program[] = "sleep";
    char seconds[] = "1000";
    char* const arguments[] = {program, seconds, NULL};
    char* const environment[] = {NULL};
    return posix_spawnp(&child, program, NULL, NULL, arguments, environment) == 0 && isImageIn(chip, slot)
               ? 0
               : -1;
}
