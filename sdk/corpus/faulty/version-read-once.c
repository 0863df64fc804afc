// getActiveVersion reads the chip once in a process.
// finds: F409
#define OWN_getActiveVersion
#include "chip.h"

int getActiveVersion(char* out)
{
    static char text[TARNWICK_CONTROL_TEXT_SIZE];
    if (text[0] == '\0' && chipVersion(text) != 0) {
        text[0] = '\0';
        return -1;
    }
    strcpy(out, text);
    return 0;
}
