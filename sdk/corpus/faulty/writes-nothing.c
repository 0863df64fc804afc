// doUpdate takes its time and tells progress, but never writes.
// finds: F402
#define OWN_install
#include "base.h"

static inline int install(void)
{
    for (unsigned int percent = 0; percent <= 100; percent += 5) {
        setProgress(percent);
        pause_ms(20);
    }
    return 0;
}
