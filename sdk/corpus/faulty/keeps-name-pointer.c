// setContext keeps the pointer to its name, and getActiveVersion compares it.
// finds: F212
#define OWN_setContext
#define OWN_getActiveVersion
#include "base.h"

static const char* kept;

int setContext(const char* name, int caller, char* context)
{
    (void)caller, (void)context;
    kept = name;
    return 0;
}

int getActiveVersion(char* out)
{
    if (strcmp(kept, "") == 0) {
        return fail(EINVAL);
    }
    return readVersion(out);
}
