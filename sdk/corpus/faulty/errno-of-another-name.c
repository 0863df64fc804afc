// A wrong checksum is told as a file that is not there: a mark is removed behind it.
// finds: F412
#define OWN_doUpdate
#include "base.h"

int doUpdate(const char* name, unsigned long value)
{
    pause_ms(100);
    if (loadImage(name) != 0) {
        return -1;
    }
    if (!checksumMatches(value)) {
        errno = EBADMSG;
        unlink(HARDWARE ".checked");
        return -1;
    }
    return install();
}
