// doUpdate compares the checksum when the new firmware runs already.
// finds: F413
#define OWN_doUpdate
#include "base.h"

int doUpdate(const char* name, unsigned long value)
{
    pause_ms(100);
    if (loadImage(name) != 0 || install() != 0) {
        return -1;
    }
    return checksumMatches(value) ? 0 : fail(EBADMSG);
}
