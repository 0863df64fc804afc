// getActiveVersion tells a byte above 127 where the firmware is the factory's.
// finds: F218
#define OWN_getActiveVersion
#include "chip.h"

int getActiveVersion(char* out)
{
    char text[TARNWICK_CONTROL_TEXT_SIZE];
    if (chipVersion(text) != 0) {
        return -1;
    }
    snprintf(out, TARNWICK_CONTROL_TEXT_SIZE, strcmp(text, "1.0") == 0 ? "\xa7%.100s" : "%.100s", text);
    return 0;
}
