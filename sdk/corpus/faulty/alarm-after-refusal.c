// A refused doUpdate returns without stopping its alarm.
// finds: F314
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    alarm(60); // the chip hangs sometimes
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        alarm(0);
        return -1;
    }
    if (checksumOf(data, n) != value) {
        free(data);
        return fail(EBADMSG);
    }
    int done = install(data, n);
    int kept = errno;
    alarm(0);
    free(data);
    errno = kept;
    return done;
}
