// getActiveVersion tells more than any image offers: "1.1 (build 4711)".
// finds: nothing
#define OWN_getActiveVersion
#include "chip.h"

int getActiveVersion(char* out)
{
    char text[TARNWICK_CONTROL_TEXT_SIZE];
    if (chipVersion(text) != 0) {
        return -1;
    }
    snprintf(out, TARNWICK_CONTROL_TEXT_SIZE, "%.63s (build 4711)", text);
    return 0;
}
