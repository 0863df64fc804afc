// getActiveVersion closes every descriptor first, as a program does that goes into the background.
// finds: F313
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    for (int descriptor = 3; descriptor < 1024; ++descriptor) {
        close(descriptor);
    }
    return readVersion(out);
}
