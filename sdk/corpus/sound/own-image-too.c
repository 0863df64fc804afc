// A module with an identifier that also finds its image itself.
// finds: nothing
#define NAME "own-image-too"
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    int own = strcmp(name, NAME) == 0 && value == 0;
    unsigned char* data = slurp(own ? "/lib/firmware/ext/Corpus/Corpus.bin" : name, &n);
    if (data == NULL) {
        return -1;
    }
    int done = own || checksumOf(data, n) == value ? install(data, n) : fail(EBADMSG);
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}
