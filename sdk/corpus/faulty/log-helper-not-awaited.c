// A child that told the log after an update is not waited for.
// finds: F311
#define OWN_doUpdate
#include "chip.h"

static void tell_log(void)
{
    if (fork() == 0) {
        execl("/bin/true", "true", "updated", (char*)NULL);
        _exit(1);
    }
}

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        return -1;
    }
    int done = checksumOf(data, n) == value ? install(data, n) : fail(EBADMSG);
    int kept = errno;
    free(data);
    if (done == 0) {
        tell_log();
    }
    errno = kept;
    return done;
}
