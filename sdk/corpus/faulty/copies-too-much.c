// getActiveVersion copies a fixed number of bytes, more than the buffer has.
// finds: F204
#define OWN_getActiveVersion
#include "chip.h"

int getActiveVersion(char* out)
{
    char text[160] = {0};
    if (chipVersion(text) != 0) {
        return -1;
    }
    memcpy(out, text, sizeof text);
    return 0;
}
