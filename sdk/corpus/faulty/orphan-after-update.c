// doUpdate starts a program by way of a child that ends at once, so the program is nobody's child.
// finds: F311
#define OWN_verifySlot
#include <sys/wait.h>

#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    int status = 0;
    const pid_t child = fork();
    if (child == 0) {
        if (fork() == 0) {
            execl("/bin/sleep", "sleep", "1000", (char*)NULL);
        }
        _exit(0);
    }
    return child > 0 && waitpid(child, &status, 0) == child && isImageIn(chip, slot) ? 0 : fail(EIO);
}
