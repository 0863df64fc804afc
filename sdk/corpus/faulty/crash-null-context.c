// setContext looks into the context, which may be null.
// finds: F302
#define OWN_setContext
#include "base.h"

int setContext(const char* name, int caller, char* context)
{
    (void)name, (void)caller;
    return strcmp(context, "unwanted") == 0 ? fail(EINVAL) : 0;
}
