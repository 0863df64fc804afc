// getActiveVersion starts a program that ends by itself, and never takes note of its end.
// finds: F311
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    return child < 0 ? -1 : readVersion(out);
}
