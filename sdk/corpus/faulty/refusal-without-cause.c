// doUpdate refuses a checksum and leaves errno 0.
// finds: F412
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        return -1;
    }
    int done = -1;
    errno = 0;
    if (checksumOf(data, n) == value) {
        done = install(data, n);
    }
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}
