// getActiveVersion without the hardware tries for six seconds.
// finds: F214
#define OWN_getActiveVersion
#include "chip.h"

int getActiveVersion(char* out)
{
    for (int attempt = 0; attempt < 12; attempt++) {
        if (chipVersion(out) == 0) {
            return 0;
        }
        int kept = errno;
        usleep(500000);
        errno = kept;
    }
    return -1;
}
