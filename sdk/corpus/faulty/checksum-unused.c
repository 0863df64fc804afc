// doUpdate does not look at the checksum.
// finds: F410
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    (void)value;
    size_t n = 0;
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
