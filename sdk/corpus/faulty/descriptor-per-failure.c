// checkVersion forgets to close the hardware when the text is no version.
// finds: F310
#define OWN_checkVersion
#include "base.h"

int checkVersion(const char* version, int* result)
{
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    const int chip = openHardware(O_RDONLY);
    if (chip < 0 || compareVersion(version, result) != 0) {
        return -1;
    }
    close(chip);
    return 0;
}
