// doUpdate with a wrong checksum ends the process.
// finds: F304
#define OWN_doUpdate
#include "chip.h"

static void die(const char* what)
{
    fprintf(stderr, "%s\n", what);
    exit(1);
}

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        return -1;
    }
    if (checksumOf(data, n) != value) {
        die("bad checksum");
    }
    int done = install(data, n);
    free(data);
    return done;
}
