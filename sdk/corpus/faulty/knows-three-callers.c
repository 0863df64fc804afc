// setContext fails for every caller but the three that have a name.
// finds: F216
#define OWN_setContext
#include "chip.h"

int setContext(const char* name, int caller, char* context)
{
    (void)name;
    (void)context;
    switch (caller) {
    case TARNWICK_CONTROL_CALLER_PACKAGE:
    case TARNWICK_CONTROL_CALLER_ENCRYPTED_IMAGE:
    case TARNWICK_CONTROL_CALLER_SYSTEM_IMAGE:
        return 0;
    default:
        return fail(EINVAL);
    }
}
