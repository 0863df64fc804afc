// An external module that takes its name for the image's path.
// finds: F401
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    (void)value;
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        return -1;
    }
    int done = install(data, n);
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}
