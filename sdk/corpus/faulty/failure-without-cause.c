// doUpdate fails without a cause in errno.
// finds: F412
#define OWN_doUpdate
#include "base.h"

int doUpdate(const char* name, unsigned long value)
{
    pause_ms(100);
    if (loadImage(name) != 0 || !checksumMatches(value) || install() != 0) {
        errno = 0;
        return -1;
    }
    return 0;
}
