// What is wrong with an image is told by errno and by a result of its own for each cause.
// finds: nothing
#define OWN_doUpdate
#include "base.h"

int doUpdate(const char* name, unsigned long value)
{
    pause_ms(100);
    if (loadImage(name) != 0) {
        return errno;
    }
    if (!checksumMatches(value)) {
        errno = EILSEQ;
        return 1000;
    }
    return install() == 0 ? 0 : 2000;
}
