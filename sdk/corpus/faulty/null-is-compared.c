// setContext compares a context that is null.
// finds: F302
#define OWN_setContext
#include "chip.h"

static volatile int from_usb;

int setContext(const char* name, int caller, char* context)
{
    (void)name;
    from_usb = strcmp(context, "USB") == 0 && caller <= 1;
    return 0;
}
