// doUpdate reads the name that setContext was given.
// finds: F212
#define OWN_setContext
#define OWN_doUpdate
#include "chip.h"

static const char* own_name;

int setContext(const char* name, int caller, char* context)
{
    (void)caller;
    (void)context;
    own_name = name;
    return 0;
}

int doUpdate(const char* name, unsigned long value)
{
    if (own_name == NULL || strcmp(own_name, "name-kept") != 0) {
        return fail(ENODEV); // one library for several chips: only ours
    }
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
