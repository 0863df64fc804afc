// setContext waits until the chip has settled.
// finds: F214
#define OWN_setContext
#include "chip.h"

int setContext(const char* name, int caller, char* context)
{
    (void)name;
    (void)caller;
    (void)context;
    usleep(1100000);
    return 0;
}
