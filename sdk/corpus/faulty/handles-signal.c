// Loading puts a handler on SIGTERM.
// finds: F306
#include <signal.h>

#include "base.h"

static void onEnd(int number)
{
    (void)number;
}

__attribute__((constructor)) static void start(void)
{
    signal(SIGTERM, onEnd);
}
