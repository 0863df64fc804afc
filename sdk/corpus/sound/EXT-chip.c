// An external module that finds and checks its own image.
// finds: nothing
#define NAME "EXT-chip"
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    if (strcmp(name, NAME) != 0 || value != 0) {
        return fail(EINVAL);
    }
    unsigned char* data = slurp("/lib/firmware/ext/Corpus/Corpus.bin", &n);
    if (data == NULL) {
        return -1;
    }
    int done = install(data, n);
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}
