// The image is written before its checksum is looked at.
// finds: F413
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        return -1;
    }
    int done = chipWrite(data, n);
    struct image image;
    if (done == 0 && (checksumOf(data, n) != value || parseImage(data, n, &image) != 0)) {
        done = fail(EBADMSG);
    }
    usleep(RESTART_US);
    int kept = errno;
    progressNow = 100;
    free(data);
    errno = kept;
    return done;
}
