// getActiveVersion returns the length of its text.
// finds: F201
#define OWN_getActiveVersion
#include "chip.h"

int getActiveVersion(char* out)
{
    char text[TARNWICK_CONTROL_TEXT_SIZE];
    if (chipVersion(text) != 0) {
        return -1;
    }
    return snprintf(out, TARNWICK_CONTROL_TEXT_SIZE, "%s", text);
}
