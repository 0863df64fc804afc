// An image is refused at once: a time-out that is told wrongly does no harm then.
// finds: nothing
#define OWN_doUpdate
#include "base.h"

int doUpdate(const char* name, unsigned long value)
{
    if (loadImage(name) != 0) {
        return -1;
    }
    return checksumMatches(value) ? install() : fail(EBADMSG);
}
