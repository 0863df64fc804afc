// An image that is installed already is left alone, and success told at once.
// finds: F403
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    struct image image;
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        return -1;
    }
    int done = checksumOf(data, n) == value && parseImage(data, n, &image) == 0 ? 0 : fail(EBADMSG);
    const int isThere = done == 0 && chipVersion(active) == 0 && strcmp(active, image.version) == 0;
    if (done == 0 && !isThere) {
        done = install(data, n);
    }
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}
