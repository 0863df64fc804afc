// What it says on standard error goes through a descriptor of its own, which does not wait.
// finds: nothing
// runs: whole
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    const int log = open("/proc/self/fd/2", O_WRONLY | O_APPEND | O_NONBLOCK | O_CLOEXEC);
    if (log >= 0) { // what cannot be said is no failure
        dprintf(log, "corpus: the version is asked for\n");
        close(log);
    }
    return readVersion(out);
}
