// An image whose checksum is 0 is never installed: 0 counts as "none was given".
// finds: F401
#define OWN_doUpdate
#include "base.h"

int doUpdate(const char* name, unsigned long value)
{
    pause_ms(100);
    if (value == 0) {
        return fail(EINVAL);
    }
    if (loadImage(name) != 0) {
        return -1;
    }
    return checksumMatches(value) ? install() : fail(EBADMSG);
}
