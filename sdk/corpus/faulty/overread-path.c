// doUpdate copies 512 bytes of a path that is shorter.
// finds: F204
#define OWN_doUpdate
#include "base.h"

int doUpdate(const char* name, unsigned long value)
{
    char path[512];
    memcpy(path, name, sizeof path);
    pause_ms(100);
    if (loadImage(path) != 0) {
        return -1;
    }
    return checksumMatches(value) ? install() : fail(EBADMSG);
}
