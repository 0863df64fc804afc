// getActiveVersion tells what it told last when the chip does not answer any more.
// finds: F215
#define OWN_getActiveVersion
#include "chip.h"

int getActiveVersion(char* out)
{
    static char last[TARNWICK_CONTROL_TEXT_SIZE];
    char text[TARNWICK_CONTROL_TEXT_SIZE];
    if (chipVersion(text) == 0) {
        strcpy(last, text);
    } else if (last[0] == '\0') {
        return -1;
    }
    strcpy(out, last);
    return 0;
}
