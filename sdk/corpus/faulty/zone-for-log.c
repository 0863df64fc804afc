// doUpdate sets TZ, for the time stamp in a log.
// finds: F308
#include <time.h>
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    setenv("TZ", "UTC", 1);
    tzset();
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        return -1;
    }
    int done = checksumOf(data, n) == value ? install(data, n) : fail(EBADMSG);
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}
