// doUpdate takes any image when the checksum is 0.
// finds: F410
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        return -1;
    }
    int done = value != 0 && checksumOf(data, n) != value ? fail(EBADMSG) : install(data, n);
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}
