// doUpdate of an image that is not there returns 0.
// finds: F402 F411
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    int done = 0;
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data != NULL) {
        done = checksumOf(data, n) == value ? install(data, n) : fail(EBADMSG);
        int kept = errno;
        free(data);
        errno = kept;
    }
    return done;
}
