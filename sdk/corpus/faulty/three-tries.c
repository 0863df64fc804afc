// checkVersion asks the chip three times, with a pause each, although the first one is answered.
// finds: F214
#define OWN_checkVersion
#include "chip.h"

int checkVersion(const char* version, int* result)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    int got = -1;
    *result = 0;
    for (int attempt = 0; attempt < 4; attempt++) {
        got = chipVersion(active);
        usleep(300000);
    }
    if (got != 0) {
        return -1;
    }
    return compareVersions(version, active, result);
}
