// SIGPIPE is ignored after the first setContext.
// finds: F306
#include <signal.h>
#define OWN_setContext
#include "chip.h"

int setContext(const char* name, int caller, char* context)
{
    (void)name;
    (void)caller;
    (void)context;
    signal(SIGPIPE, SIG_IGN); // the chip's link may break
    return 0;
}
