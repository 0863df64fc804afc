// A variable that another library was to bring.
// finds: F106
#define OWN_setContext
#include "base.h"

extern int vendorVerbosity;

int setContext(const char* name, int caller, char* context)
{
    if (vendorVerbosity > 0) {
        fprintf(stderr, "%s %d %s\n", name, caller, context == NULL ? "" : context);
    }
    return 0;
}
